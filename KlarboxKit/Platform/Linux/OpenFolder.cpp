#include "KlarboxKit/Platform/OpenFolder.hpp"

#include <cerrno>
#include <fcntl.h>

namespace klarbox {

namespace {

constexpr int realFolder = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace

UniqueFD openFolder(int at, const char *name) {
    constexpr int flags = realFolder | O_RDONLY | O_NONBLOCK;
    // The date of the last access is left alone where that is allowed, to the owner and to root: a
    // scan is no use of a folder, and writing all those dates would be a good part of its cost.
    UniqueFD folder(::openat(at, name, flags | O_NOATIME));
    if (!folder && errno == EPERM) {
        folder.reset(::openat(at, name, flags));
    }
    return folder;
}

UniqueFD openFolderToSearch(int at, const char *name) {
    return UniqueFD(::openat(at, name, realFolder | O_PATH));
}

} // namespace klarbox
