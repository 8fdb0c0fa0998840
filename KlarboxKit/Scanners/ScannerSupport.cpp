#include "KlarboxKit/Scanners/ScannerSupport.hpp"

#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FS.hpp"

#include <algorithm>

namespace klarbox::ScannerSupport {

std::optional<std::int64_t> offeredSize(std::span<const FileURL> urls, const ScanContext &context,
                                        std::stop_token stop) {
    const auto size = DiskUsage::allocatedSize(urls, [&] { return stop.stop_requested(); });
    return size < 1 || size < context.minimumSize ? std::nullopt : std::optional(size);
}

std::optional<std::int64_t> offeredSize(const FileURL &url, const ScanContext &context,
                                        std::stop_token stop) {
    return offeredSize(std::span(&url, 1), context, std::move(stop));
}

std::vector<FileURL> childrenOrNone(const FileURL &folder) {
    try {
        return FS::children(folder);
    } catch (const PlatformError &) {
        return {};
    }
}

std::vector<FileURL> childrenOrIssue(const FileURL &folder, const ScanContext &context,
                                     CategoryScan &scan) {
    try {
        return FS::children(folder);
    } catch (const PlatformError &error) {
        scan.issues.push_back(
            FS::isPermissionError(error)
                ? ScanIssue::needsFullDiskAccess(FS::tildePath(folder, context.home))
                : ScanIssue::failed(error.message()));
        return {};
    }
}

void sortLargestFirst(std::vector<KlarboxItem> &items) {
    std::ranges::stable_sort(items, std::greater{}, &KlarboxItem::size);
}

} // namespace klarbox::ScannerSupport
