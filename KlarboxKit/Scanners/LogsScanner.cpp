#include "KlarboxKit/Scanners/LogsScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

const CategoryInfo &LogsScanner::info() const {
    return CategoryCatalog::logs();
}

CategoryScan LogsScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto root = context.homePath("Library/Logs");
    const auto entries = ScannerSupport::childrenOrIssue(root, context, scan);
    scan.items = ScannerSupport::offeredItems(
        entries, context, stop,
        [&](const FileURL &entry, std::int64_t size) -> std::optional<KlarboxItem> {
            auto target = ScannerSupport::contentsOrItself(entry, FileManager::FinalLink::followed);
            if (!target) {
                return std::nullopt;
            }
            const std::string name(entry.lastComponent());
            return KlarboxItem{
                .id = info().id + ":" + name,
                .title = name,
                .detail = FS::tildePath(entry, context.home),
                .target = *std::move(target),
                .allowedRoot = root,
                .size = size,
                .tier = SafetyTier::safe,
            };
        });
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
