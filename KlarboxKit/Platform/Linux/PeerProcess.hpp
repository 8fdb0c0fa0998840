#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <sys/socket.h>
#include <sys/types.h>

namespace klarbox {

/// The process at the other end of a Unix socket: the one that called `connect`, as the kernel
/// knows it, pinned so that its number cannot come to mean another process.
class PeerProcess {
public:
    /// Throws a POSIX `PlatformError` when there is no such process any more.
    static PeerProcess of(const UniqueFD &socket);

    /// What `of` does on kernels before 6.5, which know the peer only by its number: opens the
    /// process of that number and looks whether it is still one of the user who connected.
    static PeerProcess ofNumber(const UniqueFD &socket);

    pid_t pid() const { return pid_; }
    /// Effective user and group at the time of `connect`.
    uid_t user() const { return user_; }
    gid_t group() const { return group_; }
    /// What pins it.
    const UniqueFD &descriptor() const { return pidfd_; }

private:
    explicit PeerProcess(const ucred &peer) : pid_(peer.pid), user_(peer.uid), group_(peer.gid) {}

    UniqueFD pidfd_;
    pid_t pid_;
    uid_t user_;
    gid_t group_;
};

/// Whether the process of a descriptor has ended. Safe from any thread.
bool hasEnded(const UniqueFD &process);

} // namespace klarbox
