#include "KlarboxKit/Scanners/TrashScanner.hpp"

#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

const CategoryInfo &TrashScanner::info() const {
    return CategoryCatalog::trash();
}

CategoryScan TrashScanner::scan(const ScanContext &context, std::stop_token) const {
    CategoryScan scan{.info = info()};
    addHomeTrash(context, scan);
    for (const auto &volume : ScannerSupport::childrenOrNone(volumesDirectory_)) {
        // The startup volume is among the volumes; its Trash is the one at home.
        if (FileManager::realPath(volume.path()) != "/") {
            const auto folder = volume.appending(fmt::format(".Trashes/{}", ::getuid()));
            addTrash(folder, folder, fmt::format("Trash on {}", volume.lastComponent()), context,
                     scan);
        }
    }
    return scan;
}

void TrashScanner::addHomeTrash(const ScanContext &context, CategoryScan &scan) const {
    const auto folder = context.homePath(".Trash");
    const bool isLink = FileManager::type(folder) == FileManager::FileType::symbolicLink;
    const auto real = isLink ? FileManager::realPath(folder.path()) : std::nullopt;
    const auto place = real ? FileURL(*real) : folder;
    if (real && !SafetyGuard(context.home).mayBeEmptied(place)) {
        scan.issues.push_back(ScanIssue::failed(fmt::format(
            "The Trash is a link to “{}”, which is protected.", Text::visible(place.path()))));
        return;
    }
    addTrash(folder, place, "Trash", context, scan);
}

void TrashScanner::addTrash(const FileURL &folder, const FileURL &place, std::string title,
                            const ScanContext &context, CategoryScan &scan) const {
    if (ScannerSupport::childrenOrIssue(folder, context, scan).empty()) {
        return;
    }
    const auto size = ScannerSupport::offeredSize(place, context);
    if (!size) {
        return;
    }
    scan.items.push_back({
        .id = info().id + ":" + folder.path(),
        .title = std::move(title),
        .detail = FS::tildePath(folder, context.home),
        .target = KlarboxTarget::contents(folder),
        .allowedRoot = folder,
        .size = *size,
        .tier = SafetyTier::review,
        .note = "Deleted permanently. This can't be undone.",
        // Emptying a Trash can never mean moving what it holds to the Trash again.
        .removalPolicy = RemovalPolicy::permanentOnly,
    });
}

} // namespace klarbox
