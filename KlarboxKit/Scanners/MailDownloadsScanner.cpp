#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

const CategoryInfo &MailDownloadsScanner::info() const {
    return CategoryCatalog::mailDownloads();
}

CategoryScan MailDownloadsScanner::scan(const ScanContext &context, std::stop_token) const {
    CategoryScan scan{.info = info()};
    const auto root =
        context.homePath("Library/Containers/com.apple.mail/Data/Library/Mail Downloads");
    if (ScannerSupport::childrenOrIssue(root, context, scan).empty()) {
        return scan;
    }
    if (const auto size = ScannerSupport::offeredSize(root, context)) {
        scan.items.push_back({
            .id = info().id,
            .title = "Opened Mail attachments",
            .detail = FS::tildePath(root, context.home),
            .target = KlarboxTarget::contents(root),
            .allowedRoot = root,
            .size = *size,
            .tier = SafetyTier::leftover,
            .note = "Attachments stay in your mailbox and download again when opened.",
        });
    }
    return scan;
}

} // namespace klarbox
