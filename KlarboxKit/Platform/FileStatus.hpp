#pragma once

#include <cstdint>
#include <optional>

namespace klarbox {

/// The few facts about a file that measuring and identifying it take, in one system call. Links are
/// not followed and nothing is mounted by looking. Safe from any thread.
struct FileStatus {
    std::uint64_t device;        ///< of the file system that holds it
    std::uint64_t inode;         ///< with `device`, its identity
    std::uint32_t links;         ///< hard links to it
    std::int64_t allocatedBytes; ///< space its blocks take on disk
    bool isDirectory;
    bool mayBeMountRoot;    ///< false only when the system vouches that nothing is mounted there
    bool isMountRoot;       ///< true only when the system says that something is
    bool mountsWhenEntered; ///< another file system stands there as soon as it is opened

    /// Of an entry of the open folder `folder` (AT_FDCWD for an absolute `name`); nothing, with
    /// errno set, when it cannot be had.
    static std::optional<FileStatus> of(int folder, const char *name);

    /// The same for an entry that is no folder by its listing, which costs a little less. Should it
    /// be one by now, `mayBeMountRoot` is true.
    static std::optional<FileStatus> ofFile(int folder, const char *name);

    /// Of what the descriptor itself is open on.
    static std::optional<FileStatus> ofOpen(int fd);
};

} // namespace klarbox
