#include "KlarboxKit/Safety/DiskUsage.hpp"

#include "KlarboxKit/Safety/DescriptorGrant.hpp"
#include "KlarboxKit/Safety/TreeWalk.hpp"
#include "KlarboxKit/Safety/WalkerPool.hpp"

#include <exception>
#include <string>
#include <utility>

namespace klarbox::DiskUsage {

std::int64_t allocatedSize(std::span<const FileURL> urls, const CancellationTest &isCancelled) {
    if (urls.empty()) {
        return 0;
    }
    FolderEntries given;
    for (const auto &url : urls) {
        // No file has a NUL in its path: it must not be taken for one whose path ends there.
        const auto &path = url.path();
        given.entries.append(path.find('\0') == std::string::npos ? path : "", 0, false);
    }
    const auto grant = DescriptorGrant::wait();
    TreeWalk walk(isCancelled);
    walk.descriptorsPerWalker = grant.descriptors();
    TreeWalker owner(walk, TreeWalker::Role::owner);
    std::exception_ptr failure;
    try {
        owner.run(std::move(given));
    } catch (...) {
        // Helpers use what stands in this frame: they are waited for in any case.
        failure = std::current_exception();
        walk.isStopped = true;
    }
    if (owner.isShared()) {
        WalkerPool::shared().finish(walk, owner);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    owner.checkCancellation(); // what was visited last is asked about too
    return walk.total;
}

std::int64_t allocatedSize(const FileURL &url, const CancellationTest &isCancelled) {
    return allocatedSize(std::span(&url, 1), isCancelled);
}

} // namespace klarbox::DiskUsage
