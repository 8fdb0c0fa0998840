#include "KlarboxKit/Safety/DiskUsage.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"

#include <sys/stat.h>
#include <vector>

namespace klarbox::DiskUsage {

std::int64_t allocatedSize(std::span<const FileURL> urls, const CancellationTest &) {
    std::int64_t total = 0;
    for (const auto &url : urls) {
        struct stat st {};
        if (::lstat(url.path().c_str(), &st) == 0) {
            total += st.st_blocks * 512;
            if (S_ISDIR(st.st_mode)) {
                std::vector<FileURL> below;
                for (const auto &name : FileManager::contentsOfDirectory(url)) {
                    below.push_back(url.appending(name));
                }
                total += allocatedSize(below, {});
            }
        }
    }
    return total;
}

std::int64_t allocatedSize(const FileURL &url, const CancellationTest &isCancelled) {
    return allocatedSize(std::span(&url, 1), isCancelled);
}

} // namespace klarbox::DiskUsage
