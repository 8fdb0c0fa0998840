#include "KlarboxKit/Scanners/InstallersScanner.hpp"

#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr std::array<std::string_view, 5> extensions{"dmg", "pkg", "mpkg", "xip", "iso"};

} // namespace

const CategoryInfo &InstallersScanner::info() const {
    return CategoryCatalog::installers();
}

CategoryScan InstallersScanner::scan(const ScanContext &context, std::stop_token) const {
    CategoryScan scan{.info = info()};
    const auto root = context.homePath("Downloads");
    auto entries = ScannerSupport::childrenOrNone(root);
    std::erase_if(entries, [](const FileURL &entry) {
        return std::ranges::count(extensions, Text::lowercased(entry.extension())) == 0;
    });
    scan.items = ScannerSupport::offeredItems(
        entries, context, {}, [&](const FileURL &entry, std::int64_t size) -> KlarboxItem {
            const std::string name(entry.lastComponent());
            const auto date = FS::modificationDate(entry);
            const auto days = date ? context.daysSince(*date) : 0;
            return {
                .id = info().id + ":" + name,
                .title = name,
                .detail = FS::tildePath(entry, context.home),
                .target = KlarboxTarget::item(entry),
                .allowedRoot = root,
                .size = size,
                .tier = SafetyTier::review,
                .note =
                    days == 0 ? "Downloaded today" : fmt::format("Downloaded {} days ago", days),
            };
        });
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
