#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"

#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

const CategoryInfo &SystemCachesScanner::info() const {
    return CategoryCatalog::systemCaches();
}

CategoryScan SystemCachesScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto entries = ScannerSupport::childrenOrNone(root_);
    scan.items = ScannerSupport::offeredItems(
        entries, context, stop,
        [&](const FileURL &entry, std::int64_t size) -> std::optional<KlarboxItem> {
            auto target = ScannerSupport::contentsOrItself(entry, FileManager::FinalLink::itself);
            if (!target) {
                return std::nullopt;
            }
            const std::string name(entry.lastComponent());
            auto traits = ScannerSupport::cacheTraits(
                name, context,
                "Used by macOS. Usually rebuilt, but a system service may misbehave until it "
                "recreates it or you restart.");
            return KlarboxItem{
                .id = info().id + ":" + name,
                .title = std::move(traits.title),
                .detail = entry.path(),
                .target = *std::move(target),
                .allowedRoot = root_,
                .size = size,
                .tier = traits.tier,
                .note = std::move(traits.note),
                .isSelectedByDefault = traits.isSelectedByDefault,
                .removalPolicy = RemovalPolicy::permanentOnly,
                .requiresPrivileges = true,
            };
        });
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
