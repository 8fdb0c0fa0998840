#include "KlarboxKit/Scanners/SystemCrashReportsScanner.hpp"

#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

const CategoryInfo &SystemCrashReportsScanner::info() const {
    return CategoryCatalog::systemCrashReports();
}

CategoryScan SystemCrashReportsScanner::scan(const ScanContext &context, std::stop_token) const {
    CategoryScan scan{.info = info()};
    auto reports = ScannerSupport::childrenOrNone(root_);
    std::erase_if(reports,
                  [](const FileURL &entry) { return entry.lastComponent().starts_with('.'); });
    if (const auto size = ScannerSupport::offeredSize(reports, context)) {
        scan.items.push_back({
            .id = info().id,
            .title = "System crash and diagnostic reports",
            .detail = root_.path(),
            .target = KlarboxTarget::items(std::move(reports)),
            .allowedRoot = root_,
            .size = *size,
            .tier = SafetyTier::safe,
            .removalPolicy = RemovalPolicy::permanentOnly,
            .requiresPrivileges = true,
        });
    }
    return scan;
}

} // namespace klarbox
