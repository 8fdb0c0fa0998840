#include "KlarboxKit/Platform/OpenForReading.hpp"

#include <cerrno>
#include <fcntl.h>

namespace klarbox {

UniqueFD openForReading(int at, const char *name, int flags) {
    flags |= O_RDONLY | O_CLOEXEC;
    // To look at things is no use of them, and writing all those dates would be a good part of what
    // a scan costs. Only the owner and root may leave them alone.
    UniqueFD opened(::openat(at, name, flags | O_NOATIME));
    if (!opened && errno == EPERM) {
        opened.reset(::openat(at, name, flags));
    }
    return opened;
}

} // namespace klarbox
