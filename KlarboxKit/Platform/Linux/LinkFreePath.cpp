#include "KlarboxKit/Platform/LinkFreePath.hpp"

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace klarbox {

bool isLinkFree(const std::string &path) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    // The C library has no name for it yet.
    const auto opened = ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    return bool(UniqueFD(static_cast<int>(opened)));
}

} // namespace klarbox
