#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cerrno>
#include <unistd.h>

namespace klarbox {

void UniqueFD::reset(int fd) {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) {
        // Clean-up often runs between a failed call and the look at its errno.
        const int saved = errno;
        ::close(old);
        errno = saved;
    }
}

} // namespace klarbox
