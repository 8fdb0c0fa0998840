#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/XPC.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

namespace klarbox::XPC {

namespace {

/// As many as the system allows: newcomers that wait for a place wait here.
constexpr int backlog = SOMAXCONN;

PlatformError cannotListen(const FileURL &path, std::string_view why, int cause = 0) {
    return PlatformError::cocoa(
        PlatformError::fileWriteUnknown,
        fmt::format("Cannot serve at “{}”: {}", Text::visible(path.path()), why), cause);
}

PlatformError cannotListen(const FileURL &path, int code) {
    return cannotListen(path, std::generic_category().message(code), code);
}

/// The socket that the service manager opened for this process, or none.
UniqueFD activatedSocket(const FileURL &path) {
    const int count = ::sd_listen_fds(1);
    if (count < 0) {
        throw cannotListen(path, -count);
    }
    if (count == 0) {
        return {};
    }
    UniqueFD socket(SD_LISTEN_FDS_START);
    if (count != 1 ||
        ::sd_is_socket_unix(socket.get(), SOCK_SEQPACKET, 1, path.path().c_str(), 0) <= 0) {
        throw cannotListen(path, "the service manager handed over something else.");
    }
    return socket;
}

UniqueFD openFolder(const FileURL &path) {
    const auto folder = path.parent().path();
    const bool isNew = ::mkdir(folder.c_str(), 0755) == 0;
    if (!isNew && errno != EEXIST) {
        throw cannotListen(path, errno);
    }
    UniqueFD fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    // What a daemon makes is closed to others, but everyone must get to the socket.
    if (!fd || (isNew && ::fchmod(fd.get(), 0755) != 0) || ::fstat(fd.get(), &st) != 0) {
        throw cannotListen(path, errno);
    }
    // Whoever may write here could put a socket of their own in the place of ours.
    if (st.st_uid != ::geteuid() || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw cannotListen(path, "others may change its folder.");
    }
    return fd;
}

} // namespace

FileURL serviceSocket(std::string_view serviceName) {
    return FileURL(fmt::format("/run/klarbox/{}.sock", serviceName));
}

UniqueFD listen(const FileURL &path, UniqueFD &lock) {
    if (auto socket = activatedSocket(path)) {
        return socket;
    }
    const auto folder = openFolder(path);
    const std::string name(path.lastComponent());
    // One server at a time. A file of its own that only its owner can open, because anyone who can
    // open a file can lock it.
    lock.reset(::openat(folder.get(), (name + ".lock").c_str(),
                        O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock) {
        throw cannotListen(path, errno);
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        throw cannotListen(path, "another process serves there already.", errno);
    }

    // Made under another name and moved into place, so that at no moment there is a socket that
    // refuses or that has the wrong mode.
    const auto temporary = path.path() + ".new";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (temporary.size() >= sizeof address.sun_path) {
        throw cannotListen(path, ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, temporary.c_str(), temporary.size() + 1);
    const auto temporaryName = name + ".new";
    if (::unlinkat(folder.get(), temporaryName.c_str(), 0) != 0 && errno != ENOENT) {
        throw cannotListen(path, errno);
    }
    UniqueFD socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket) {
        throw cannotListen(path, errno);
    }
    // Before anybody can connect: newer kernels settle at that moment what a connection inherits.
    requestSenders(socket);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::fchmodat(folder.get(), temporaryName.c_str(), 0666, 0) != 0 ||
        ::listen(socket.get(), backlog) != 0) {
        throw cannotListen(path, errno);
    }
    struct stat st {};
    if (::fstatat(folder.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        !S_ISSOCK(st.st_mode)) {
        ::unlinkat(folder.get(), temporaryName.c_str(), 0);
        throw cannotListen(path, "something that is no socket is in its place.");
    }
    if (::renameat(folder.get(), temporaryName.c_str(), folder.get(), name.c_str()) != 0) {
        throw cannotListen(path, errno);
    }
    return socket;
}

void announceReady() {
    // Without a service manager there is nobody to tell.
    static_cast<void>(::sd_notify(1, "READY=1"));
}

} // namespace klarbox::XPC
