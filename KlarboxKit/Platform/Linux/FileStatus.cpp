#include "KlarboxKit/Platform/FileStatus.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace klarbox {

namespace {

/// The number may come over a network, and be absurd.
std::int64_t bytesOf(std::uint64_t blocks) {
    constexpr std::int64_t blockSize = 512;
    constexpr std::uint64_t most = INT64_MAX / blockSize;
    return static_cast<std::int64_t>(std::min(blocks, most)) * blockSize;
}

std::optional<FileStatus> status(int fd, const char *name, int flags) {
    struct statx raw;
    // Nothing else is asked for: a network file system need not fetch what nobody reads.
    constexpr unsigned wanted = STATX_TYPE | STATX_NLINK | STATX_INO | STATX_BLOCKS;
    if (::statx(fd, name, flags | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, wanted, &raw) != 0) {
        return std::nullopt;
    }
    const bool saysMountRoot = (raw.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
    const bool isMountRoot = saysMountRoot && (raw.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    const bool mountsWhenEntered = (raw.stx_attributes & STATX_ATTR_AUTOMOUNT) != 0;
    return FileStatus{
        .device = ::makedev(raw.stx_dev_major, raw.stx_dev_minor),
        .inode = raw.stx_ino,
        .links = raw.stx_nlink,
        .allocatedBytes = bytesOf(raw.stx_blocks),
        .isDirectory = S_ISDIR(raw.stx_mode),
        .mayBeMountRoot = !saysMountRoot || isMountRoot,
        .isMountRoot = isMountRoot,
        .mountsWhenEntered = mountsWhenEntered,
    };
}

} // namespace

std::optional<FileStatus> FileStatus::of(int folder, const char *name) {
    return status(folder, name, 0);
}

std::optional<FileStatus> FileStatus::ofFile(int folder, const char *name) {
    struct stat raw;
    if (::fstatat(folder, name, &raw, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
        return std::nullopt;
    }
    return FileStatus{
        .device = raw.st_dev,
        .inode = raw.st_ino,
        .links = static_cast<std::uint32_t>(raw.st_nlink),
        .allocatedBytes = bytesOf(static_cast<std::uint64_t>(raw.st_blocks)),
        .isDirectory = S_ISDIR(raw.st_mode),
        .mayBeMountRoot = true,
        .isMountRoot = false,
        .mountsWhenEntered = false,
    };
}

std::optional<FileStatus> FileStatus::ofOpen(int fd) {
    return status(fd, "", AT_EMPTY_PATH);
}

} // namespace klarbox
