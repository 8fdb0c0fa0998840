#include "KlarboxKit/Scanners/XcodeScanner.hpp"

#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>
#include <iterator>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr std::array<std::string_view, 6> deviceSupportPlatforms{"iOS",   "watchOS",  "tvOS",
                                                                 "macOS", "visionOS", "xrOS"};

struct Cache {
    std::string_view path; ///< relative to the developer folder
    std::string_view title;
};

constexpr std::array<Cache, 4> caches{{
    {"CoreSimulator/Caches", "Simulator caches"},
    {"Xcode/DocumentationCache", "Documentation cache"},
    {"Xcode/UserData/Previews", "SwiftUI preview data"},
    {"Xcode/iOS Device Logs", "Device logs"},
}};

/// What the items of one heading have in common.
struct Group {
    std::string_view name;
    SafetyTier tier;
    std::string_view note;
};

constexpr Group derivedData{"Derived Data", SafetyTier::safe, "Rebuilt the next time you build."};
constexpr Group deviceSupport{
    "Device Support", SafetyTier::safe,
    "Copied again the next time you connect a device running this version."};
constexpr Group archives{"Archives", SafetyTier::review,
                         "Holds the debug symbols needed to read crash reports for this build."};
constexpr Group rebuiltCaches{"Caches", SafetyTier::safe, "Rebuilt automatically."};

/// Looks through one developer folder.
class DeveloperFolder {
public:
    DeveloperFolder(const ScanContext &context, const std::stop_token &stop)
        : context_(context),
          stop_(stop),
          url_(context.homePath("Library/Developer")) {}

    std::vector<KlarboxItem> items() {
        addDerivedData();
        addDeviceSupport();
        addArchives();
        addCaches();
        ScannerSupport::sortLargestFirst(items_);
        return std::move(items_);
    }

private:
    void addDerivedData() {
        const auto root = url_.appending("Xcode/DerivedData");
        add(derivedData, ScannerSupport::foldersOrNone(root), root,
            [](std::string_view name) { return XcodeScanner::projectName(name); });
    }

    void addDeviceSupport() {
        for (const auto platform : deviceSupportPlatforms) {
            const auto root = url_.appending(fmt::format("Xcode/{} DeviceSupport", platform));
            add(deviceSupport, ScannerSupport::foldersOrNone(root), root,
                [&](std::string_view name) { return fmt::format("{} {}", platform, name); });
        }
    }

    void addArchives() {
        const auto root = url_.appending("Xcode/Archives");
        for (const auto &day : ScannerSupport::foldersOrNone(root)) {
            auto bundles = ScannerSupport::childrenOrNone(day);
            std::erase_if(bundles,
                          [](const FileURL &url) { return url.extension() != "xcarchive"; });
            add(archives, bundles, root, [&](std::string_view name) {
                return fmt::format("{} ({})", name.substr(0, name.rfind('.')), day.lastComponent());
            });
        }
    }

    void addCaches() {
        for (const auto &[path, title] : caches) {
            const auto folder = url_.appending(path);
            if (stop_.stop_requested() || !FS::isRealDirectory(folder)) {
                continue;
            }
            if (const auto size = ScannerSupport::offeredSize(folder, context_, stop_)) {
                items_.push_back(item(rebuiltCaches, path, std::string(title),
                                      KlarboxTarget::contents(folder), folder, *size));
            }
        }
    }

    template <typename Title>
    void add(const Group &group, const std::vector<FileURL> &candidates, const FileURL &root,
             const Title &title) {
        std::ranges::move(ScannerSupport::offeredItems(candidates, context_, stop_,
                                                       [&](const FileURL &url, std::int64_t size) {
                                                           return item(group, url.path(),
                                                                       title(url.lastComponent()),
                                                                       KlarboxTarget::item(url),
                                                                       root, size);
                                                       }),
                          std::back_inserter(items_));
    }

    KlarboxItem item(const Group &group, std::string_view key, std::string title,
                     const KlarboxTarget &target, const FileURL &root, std::int64_t size) const {
        return {
            .id = fmt::format("{}:{}", CategoryCatalog::xcode().id, key),
            .title = std::move(title),
            .detail = FS::tildePath(target.paths().front(), context_.home),
            .target = target,
            .allowedRoot = root,
            .size = size,
            .tier = group.tier,
            .note = std::string(group.note),
            .group = std::string(group.name),
        };
    }

    const ScanContext &context_;
    const std::stop_token &stop_;
    FileURL url_;
    std::vector<KlarboxItem> items_;
};

} // namespace

const CategoryInfo &XcodeScanner::info() const {
    return CategoryCatalog::xcode();
}

bool XcodeScanner::isRelevant(const ScanContext &context) const {
    return FileManager::exists(context.homePath("Library/Developer/Xcode")) ||
           FileManager::exists(context.homePath("Library/Developer/CoreSimulator"));
}

CategoryScan XcodeScanner::scan(const ScanContext &context, std::stop_token stop) const {
    return {.info = info(), .items = DeveloperFolder(context, stop).items()};
}

std::string XcodeScanner::projectName(std::string_view derivedDataName) {
    constexpr std::size_t shortestHash = 8;
    if (derivedDataName == "ModuleCache.noindex") {
        return "Module cache";
    }
    const auto dash = derivedDataName.rfind('-');
    const bool hasHash = dash != std::string_view::npos &&
                         Text::lowercaseLetters(derivedDataName.substr(dash + 1)) >= shortestHash;
    return std::string(hasHash ? derivedDataName.substr(0, dash) : derivedDataName);
}

} // namespace klarbox
