#include "KlarboxKit/Platform/OpenFolder.hpp"

#include "KlarboxKit/Platform/OpenForReading.hpp"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace klarbox {

UniqueFD openFolder(int at, const char *name) {
    return openForReading(at, name, O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK);
}

UniqueFD openFolderOnSameMount(int at, const char *name) {
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    how.resolve = RESOLVE_NO_XDEV;
    // The C library has no name for it yet.
    UniqueFD folder(static_cast<int>(::syscall(SYS_openat2, at, name, &how, sizeof how)));
    return folder || errno != ENOSYS ? std::move(folder) : openFolder(at, name);
}

UniqueFD openFolderToSearch(int at, const char *name) {
    return UniqueFD(::openat(at, name, O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_PATH));
}

} // namespace klarbox
