#include "KlarboxKit/Safety/DiskUsage.hpp"

#include "KlarboxKit/Safety/TreeMeasurement.hpp"

#include <fcntl.h>
#include <string>
#include <utility>

namespace klarbox::DiskUsage {

std::int64_t allocatedSize(std::span<const FileURL> urls, const CancellationTest &isCancelled) {
    if (urls.empty()) {
        return 0;
    }
    EntryList given;
    for (const auto &url : urls) {
        // No file has a NUL in its path: it must not be taken for one whose path ends there.
        const auto &path = url.path();
        given.append(path.find('\0') == std::string::npos ? path : "", 0, false);
    }
    return TreeMeasurement(AT_FDCWD, isCancelled).run(std::move(given));
}

std::int64_t allocatedSize(const FileURL &url, const CancellationTest &isCancelled) {
    return allocatedSize(std::span(&url, 1), isCancelled);
}

std::int64_t allocatedSize(const PinnedEntry &entry, const CancellationTest &isCancelled) {
    if (entry.isKnownNoFolder()) {
        return entry.status->allocatedBytes;
    }
    EntryList given;
    given.append(entry.name, 0, false);
    return TreeMeasurement(entry.parent(), isCancelled).run(std::move(given));
}

} // namespace klarbox::DiskUsage
