#include "KlarboxKit/Safety/DiskUsage.hpp"

#include "KlarboxKit/Safety/DescriptorGrant.hpp"
#include "KlarboxKit/Safety/TreeWalk.hpp"
#include "KlarboxKit/Safety/WalkerPool.hpp"

#include <exception>
#include <fcntl.h>
#include <string>
#include <utility>

namespace klarbox::DiskUsage {

namespace {

/// Measures what was given: absolute paths, or names in the open folder `givenIn`.
std::int64_t measured(FolderEntries given, int givenIn, const CancellationTest &isCancelled) {
    const auto grant = DescriptorGrant::wait();
    TreeWalk walk(isCancelled);
    walk.descriptorsPerWalker = grant.descriptors();
    walk.givenIn = givenIn;
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

} // namespace

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
    return measured(std::move(given), AT_FDCWD, isCancelled);
}

std::int64_t allocatedSize(const FileURL &url, const CancellationTest &isCancelled) {
    return allocatedSize(std::span(&url, 1), isCancelled);
}

std::int64_t allocatedSize(const PinnedEntry &entry, const CancellationTest &isCancelled) {
    if (entry.isKnownNoFolder()) {
        return entry.status->allocatedBytes;
    }
    FolderEntries given;
    given.entries.append(entry.name, 0, false);
    return measured(std::move(given), entry.parent(), isCancelled);
}

} // namespace klarbox::DiskUsage
