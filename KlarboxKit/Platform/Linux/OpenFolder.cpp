#include "KlarboxKit/Platform/OpenFolder.hpp"

#include <fcntl.h>

namespace klarbox {

namespace {

constexpr int realFolder = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace

UniqueFD openFolder(int at, const char *name) {
    return UniqueFD(::openat(at, name, realFolder | O_RDONLY | O_NONBLOCK));
}

UniqueFD openFolderToSearch(int at, const char *name) {
    return UniqueFD(::openat(at, name, realFolder | O_PATH));
}

} // namespace klarbox
