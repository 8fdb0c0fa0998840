#include "KlarboxKit/Scanners/BrokenLaunchAgentsScanner.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/PlacesOnTheWay.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <sys/stat.h>

namespace klarbox {

namespace {

std::optional<std::string_view> text(const PropertyList &dictionary, std::string_view key) {
    const auto value = dictionary.find(key);
    // The view is into the list, which `dictionary` keeps alive.
    return value ? value->asString() : std::nullopt;
}

/// Whether there is nothing at the path, symbolic links followed. A path that may not be looked at
/// is not known to be missing.
bool isMissing(const FileURL &url) {
    struct stat st {};
    return ::stat(url.path().c_str(), &st) != 0 &&
           (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG);
}

/// Whether a program comes with the system, on the volume that nobody else can write to.
bool isOfTheSystem(const FileURL &program) {
    constexpr std::array<std::string_view, 4> folders{"/System/", "/bin/", "/sbin/", "/usr/"};
    return !program.path().starts_with("/usr/local/") &&
           std::ranges::any_of(folders, [&](std::string_view folder) {
               return program.path().starts_with(folder);
           });
}

} // namespace

const CategoryInfo &BrokenLaunchAgentsScanner::info() const {
    return CategoryCatalog::brokenLaunchAgents();
}

std::optional<std::string> BrokenLaunchAgentsScanner::program(const PropertyList &agent) {
    if (const auto program = text(agent, "Program")) {
        return std::string(*program);
    }
    const auto arguments = agent.find("ProgramArguments");
    if (!arguments || arguments->kind() != PropertyList::Kind::array || arguments->count() == 0) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < arguments->count(); ++i) {
        if (arguments->at(i).kind() != PropertyList::Kind::string) {
            return std::nullopt;
        }
    }
    return std::string(*arguments->at(0).asString());
}

bool BrokenLaunchAgentsScanner::isGone(const FileURL &program) const {
    if (!isMissing(program) || disk_ == FileURL("/")) {
        return isMissing(program);
    }
    // The volume of a Mac's home folders is often mounted without that of its system.
    const bool isKnown = !isOfTheSystem(program) || FileManager::exists(disk_.appending("usr/bin"));
    return isKnown && isMissing(FileURL(placesOnTheWay(program, disk_).back()));
}

CategoryScan BrokenLaunchAgentsScanner::scan(const ScanContext &context, std::stop_token) const {
    CategoryScan scan{.info = info()};
    const auto root = context.homePath("Library/LaunchAgents");
    for (const auto &entry : ScannerSupport::childrenOrNone(root)) {
        if (entry.extension() != "plist") {
            continue;
        }
        const auto agent = ScannerSupport::dictionary(entry);
        const auto missing = agent ? program(*agent) : std::nullopt;
        // A bare name is found through the search path only when the agent starts, and a program on
        // another volume may be there again tomorrow.
        if (!missing || !missing->starts_with('/') || missing->starts_with("/Volumes/") ||
            !isGone(FileURL(*missing))) {
            continue;
        }
        scan.items.push_back({
            .id = info().id + ":" + entry.path(),
            .title = std::string(text(*agent, "Label").value_or(entry.stem())),
            .detail = FS::tildePath(entry, context.home),
            .target = KlarboxTarget::item(entry),
            .allowedRoot = root,
            .size = DiskUsage::allocatedSize(entry),
            .tier = SafetyTier::leftover,
            .note =
                "Starts " + *missing + ", which no longer exists. Fully stops after you log out.",
        });
    }
    return scan;
}

} // namespace klarbox
