#include "KlarboxKit/Platform/LinkFreePath.hpp"

#include "KlarboxKit/Platform/OpenFolder.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace klarbox {

namespace {

UniqueFD openWithoutLinks(const std::string &path, unsigned flags) {
    open_how how{};
    how.flags = flags | O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    // The C library has no name for it yet.
    const auto opened = ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    return UniqueFD(static_cast<int>(opened));
}

UniqueFD openStepByStep(const std::string &path) {
    auto folder = openFolderToSearch(AT_FDCWD, "/");
    for (std::size_t at = 0; folder && at < path.size();) {
        const auto end = std::min(path.find('/', at), path.size());
        if (end > at) {
            folder = openFolderToSearch(folder.get(), path.substr(at, end - at).c_str());
        }
        at = end + 1;
    }
    return folder;
}

} // namespace

bool isLinkFree(const std::string &path) {
    return bool(openWithoutLinks(path, 0));
}

UniqueFD openLinkFreeFolder(const std::string &path) {
    if (path.find('\0') != std::string::npos) {
        errno = ENOENT; // the call would silently stop there
        return {};
    }
    auto folder = openWithoutLinks(path, O_DIRECTORY);
    if (folder) {
        return folder;
    }
    switch (errno) {
    case ENOSYS:
    case EPERM:        // what a sandbox older than the call says of it
    case ENAMETOOLONG: // each step by itself may be short enough
        return openStepByStep(path);
    case ELOOP:
        errno = ENOTDIR; // as a step by itself says of a link
        return {};
    default:
        return {};
    }
}

} // namespace klarbox
