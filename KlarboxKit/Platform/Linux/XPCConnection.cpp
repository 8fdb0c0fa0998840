#include "KlarboxKit/Platform/XPCConnection.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/XPC.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <system_error>
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

using Kind = XPCError::Kind;

XPCError systemFailure(Kind kind, std::string_view what, int code) {
    return {kind, code, fmt::format("{}: {}.", what, std::generic_category().message(code))};
}

XPCError impostor() {
    return {Kind::unverified, EACCES, "What answers is not the service."};
}

XPCError silence() {
    return {Kind::silent, ETIMEDOUT, "The service does not answer."};
}

/// Blocks until there is something to receive, be it the end of the connection.
void awaitPacket(const UniqueFD &socket, const XPCConnection::Waiting &waiting) {
    using namespace std::chrono;
    const auto begin = steady_clock::now();
    pollfd events{.fd = socket.get(), .events = POLLIN, .revents = 0};
    seconds told{};
    for (;;) {
        const auto untilNext = ceil<milliseconds>(begin + told + 1s - steady_clock::now());
        const int ready = ::poll(&events, 1, std::max(0, static_cast<int>(untilNext.count())));
        if (ready == 0) {
            told = floor<seconds>(steady_clock::now() - begin);
            waiting(told);
        } else if (ready > 0 || errno != EINTR) {
            break; // should waiting itself have failed, receiving waits
        }
    }
    if (told > 0s) {
        waiting(0s);
    }
}

} // namespace

XPCConnection::XPCConnection(const Service &service) : serviceUser_(service.user) {
    const auto &path = service.socket.path();
    const auto requirement = CodeRequirement::parse(service.requirement);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw systemFailure(Kind::unreachable, "The service cannot be reached", ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    socket_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const auto patience = std::chrono::duration_cast<std::chrono::microseconds>(service.patience);
    timeval limit{.tv_sec = patience.count() / 1'000'000, .tv_usec = patience.count() % 1'000'000};
    // The limit for sending is also the one for connecting.
    if (!socket_ ||
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        throw systemFailure(Kind::unreachable, "No connection could be made", errno);
    }
    requestSenders(socket_);
    int connected = 0;
    {
        const ClientGroup group;
        connected =
            ::connect(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    if (connected != 0 && errno == EAGAIN) {
        throw silence();
    }
    if (connected != 0) {
        throw systemFailure(Kind::unreachable, "The service cannot be reached", errno);
    }

    std::optional<XPCPacket> welcome;
    try {
        welcome = receivePacket(socket_, XPC::maximumReplySize, true);
    } catch (const PlatformError &error) {
        if (error.code() == EAGAIN) {
            throw silence();
        }
        // Being cut off with unread packets in the way is being turned away too.
        throw error.code() == ECONNRESET
            ? XPCError(Kind::turnedAway, EACCES, "The service did not accept this program.")
            : systemFailure(Kind::interrupted, "The connection failed", error.code());
    }
    if (!welcome) {
        throw XPCError(Kind::turnedAway, EACCES, "The service did not accept this program.");
    }
    // The kernel says who speaks; the executable it speaks from is handed over because a user's
    // process may not look into root's.
    if (welcome->sender.uid != service.user || welcome->bytes != XPCPacket::welcome ||
        !welcome->attachment) {
        throw impostor();
    }
    servicePID_ = welcome->sender.pid;
    const Code code(std::move(welcome->attachment));
    try {
        information_ = code.signingInformation(service.anchors);
    } catch (const PlatformError &error) {
        throw XPCError(Kind::unverified, EACCES,
                       fmt::format("The service is not correctly signed: {}", error.message()));
    }
    if (!requirement || !requirement->isSatisfiedBy(information_)) {
        throw XPCError(Kind::unverified, EACCES,
                       "What answers is not the service but another signed program.");
    }
    // A request takes as long as it takes.
    limit = {};
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        throw systemFailure(Kind::interrupted, "The connection failed", errno);
    }
}

std::string XPCConnection::send(std::string_view selector, std::string_view argument,
                                std::stop_token stop, const Waiting &waiting) {
    std::string message(selector);
    message += '\0';
    message += argument;
    unsent_ = true;
    if (message.size() > XPC::maximumMessageSize) {
        throw systemFailure(Kind::interrupted, "The message cannot be sent", EMSGSIZE);
    }
    std::optional<XPCPacket> reply;
    const std::stop_callback hangUp(stop, [&] { ::shutdown(socket_.get(), SHUT_RDWR); });
    try {
        sendPacket(socket_, message);
        unsent_ = false;
        if (waiting) {
            awaitPacket(socket_, waiting);
        }
        reply = receivePacket(socket_, XPC::maximumReplySize);
    } catch (const PlatformError &error) {
        throw systemFailure(Kind::interrupted, "The connection to the service failed",
                            error.code());
    }
    if (!reply) {
        throw XPCError(Kind::interrupted, ECONNRESET,
                       "The service closed the connection without an answer.");
    }
    if (reply->sender.pid != servicePID_ || reply->sender.uid != serviceUser_) {
        throw impostor();
    }
    return std::move(reply->bytes);
}

} // namespace klarbox
