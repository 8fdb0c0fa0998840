#include "KlarboxKit/Platform/XPCConnection.hpp"

#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Platform/XPC.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Declares every program that contains this client to be one (see `XPCListener`). Part of the
/// signed bytes, so nobody can take it out of a program without losing the signature.
[[gnu::section("__xpc_client"), gnu::used, gnu::retain]] const char clientRules[] = "1";

/// Has the client's group, which an installed program keeps as its saved group only, in effect for
/// as long as it lives. For the calling thread alone: programs that other threads start meanwhile
/// must not get the group.
class ClientGroup {
public:
    ClientGroup() {
        gid_t real = 0;
        gid_t saved = 0;
        if (::getresgid(&real, &effective_, &saved) == 0 && saved != effective_) {
            raised_ = ::syscall(SYS_setresgid, -1, saved, -1) == 0;
        }
    }
    ~ClientGroup() {
        if (raised_) {
            ::syscall(SYS_setresgid, -1, effective_, -1);
        }
    }
    ClientGroup(const ClientGroup &) = delete;
    ClientGroup &operator=(const ClientGroup &) = delete;

private:
    gid_t effective_ = 0;
    bool raised_ = false;
};

PlatformError failure(std::string message, int code) {
    return {PlatformError::Domain::posix, code, std::move(message)};
}

} // namespace

XPCConnection::XPCConnection(const Service &service) : serviceUser_(service.user) {
    const auto &path = service.socket.path();
    const auto requirement = CodeRequirement::parse(service.requirement);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!requirement || path.size() >= sizeof address.sun_path) {
        throw failure("The Klarbox helper cannot be asked for in this way.", EINVAL);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    socket_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const auto patience = std::chrono::duration_cast<std::chrono::microseconds>(service.patience);
    timeval limit{.tv_sec = patience.count() / 1'000'000, .tv_usec = patience.count() % 1'000'000};
    if (!socket_ ||
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        throw PlatformError::posix(errno);
    }
    requestSenders(socket_);
    int connected = 0;
    {
        const ClientGroup group;
        connected =
            ::connect(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    if (connected != 0) {
        const int code = errno;
        throw failure(fmt::format("The Klarbox helper cannot be reached: {}", std::strerror(code)),
                      code);
    }

    std::optional<XPCPacket> welcome;
    try {
        welcome = receivePacket(socket_, XPC::maximumReplySize, true);
    } catch (const PlatformError &error) {
        throw failure(error.code() == EAGAIN ? "The Klarbox helper does not answer."
                                             : "The Klarbox helper closed the connection.",
                      error.code());
    }
    if (!welcome) {
        throw failure("The Klarbox helper refused this program.", EACCES);
    }
    // The kernel says who speaks; the executable it speaks from is handed over because a user's
    // process may not look into root's.
    if (welcome->sender.uid != service.user || welcome->bytes != XPCPacket::welcome ||
        !welcome->attachment) {
        throw failure("What answers is not the Klarbox helper.", EACCES);
    }
    servicePID_ = welcome->sender.pid;
    const Code code(std::move(welcome->attachment));
    try {
        information_ = code.signingInformation(service.anchors);
    } catch (const PlatformError &error) {
        throw failure(
            fmt::format("The Klarbox helper is not correctly signed: {}", error.message()), EACCES);
    }
    if (!requirement->isSatisfiedBy(information_)) {
        throw failure("What answers is not the Klarbox helper but another signed program.", EACCES);
    }
    // Removing a large folder takes as long as it takes.
    limit = {};
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        throw PlatformError::posix(errno);
    }
}

std::string XPCConnection::send(std::string_view selector, std::string_view argument) {
    std::string message(selector);
    message += '\0';
    message += argument;
    unsent_ = true;
    if (message.size() > XPC::maximumMessageSize) {
        throw failure("The path is too long for the Klarbox helper.", ENAMETOOLONG);
    }
    sendPacket(socket_, message);
    unsent_ = false;
    auto reply = receivePacket(socket_, XPC::maximumReplySize);
    if (!reply || reply->sender.pid != servicePID_ || reply->sender.uid != serviceUser_) {
        throw failure("The Klarbox helper closed the connection without an answer.", ECONNRESET);
    }
    return std::move(reply->bytes);
}

} // namespace klarbox
