#include "KlarboxKit/Platform/Linux/PeerProcess.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>

#ifndef SO_PEERPIDFD
// Newer than the C library's headers; the same number on every architecture that is built for.
#define SO_PEERPIDFD 77
#endif

namespace klarbox {

namespace {

ucred credentials(const UniqueFD &socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        throw PlatformError::posix(errno);
    }
    // A peer in a process namespace that cannot be seen from here has no number.
    if (peer.pid <= 0) {
        throw PlatformError::posix(ESRCH);
    }
    return peer;
}

/// The effective user of a process, from the kernel's own record of it.
std::optional<uid_t> effectiveUser(pid_t pid) {
    const UniqueFD file(::open(fmt::format("/proc/{}/status", pid).c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> buffer{};
    const auto got = ::read(file.get(), buffer.data(), buffer.size());
    const std::string_view text(buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    constexpr std::string_view label = "\nUid:\t";
    const auto at = text.find(label);
    // A process name cannot hold this label: the kernel escapes newlines in it.
    const auto real = at == std::string_view::npos ? at : text.find('\t', at + label.size());
    if (real == std::string_view::npos) {
        return std::nullopt;
    }
    uid_t user = 0;
    const auto *begin = text.data() + real + 1;
    const auto parsed = std::from_chars(begin, text.data() + text.size(), user);
    return parsed.ec == std::errc{} ? std::optional(user) : std::nullopt;
}

} // namespace

PeerProcess PeerProcess::of(const UniqueFD &socket) {
    int fd = -1;
    socklen_t size = sizeof fd;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERPIDFD, &fd, &size) != 0) {
        if (errno == ENOPROTOOPT) {
            return ofNumber(socket);
        }
        throw PlatformError::posix(errno);
    }
    UniqueFD pidfd(fd);
    PeerProcess process(credentials(socket));
    process.pidfd_ = std::move(pidfd);
    return process;
}

PeerProcess PeerProcess::ofNumber(const UniqueFD &socket) {
    PeerProcess process(credentials(socket));
    process.pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, process.pid_, 0)));
    if (!process.pidfd_) {
        throw PlatformError::posix(errno);
    }
    // The number may have passed on before it was opened. A process of the same user may have got
    // it, but that one has to pass every check itself, and what it did not send is not listened to.
    if (effectiveUser(process.pid_) != process.user_ || hasEnded(process.pidfd_)) {
        throw PlatformError::posix(ESRCH);
    }
    return process;
}

bool hasEnded(const UniqueFD &process) {
    pollfd ended{.fd = process.get(), .events = POLLIN, .revents = 0};
    int ready = 0;
    do {
        ready = ::poll(&ended, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready != 0;
}

} // namespace klarbox
