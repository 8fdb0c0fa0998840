#include "KlarboxKit/Platform/XPCListener.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/XPCListenerState.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/Linux/XPCServedConnection.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace klarbox {

namespace {

/// How many times over there may be connections for a moment: those that made room and whose
/// threads have not ended yet count, too.
constexpr std::size_t endingReserve = 2;

timeval timeLimit(std::chrono::milliseconds limit) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
    return {.tv_sec = seconds.count(),
            .tv_usec = std::chrono::microseconds(limit - seconds).count()};
}

UniqueFD listening(UniqueFD socket) {
    // Connections inherit it, so that not even the first packet comes without its sender. Whoever
    // made the socket did the same before anybody could connect.
    requestSenders(socket);
    const int flags = ::fcntl(socket.get(), F_GETFL);
    // A newcomer may be gone again between being announced and being accepted.
    if (flags < 0 || ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        throw PlatformError::posix(errno);
    }
    return socket;
}

UniqueFD ownExecutable() {
    UniqueFD executable(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    if (!executable) {
        throw PlatformError::posix(errno);
    }
    return executable;
}

/// A peer that connected.
struct Newcomer {
    UniqueFD socket;
    uid_t user;
};

/// The next one; nothing when there is none, or nothing can be done about it.
std::optional<Newcomer> accept(const XPCListenerState &state) {
    UniqueFD peer(::accept4(state.socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!peer) {
        switch (errno) {
        case EAGAIN:
        case EINTR:
        case ECONNABORTED:
            return std::nullopt;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            // Nothing to do but to let others finish; without a pause this would spin.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            return std::nullopt;
        default:
            throw PlatformError::posix(errno);
        }
    }
    ucred credentials{};
    socklen_t size = sizeof credentials;
    const auto limit = timeLimit(state.options.limits.unreadReply);
    if (::getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        ::setsockopt(peer.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        return std::nullopt;
    }
    return Newcomer{std::move(peer), credentials.uid};
}

/// Ends the connection that is missed least of those of one user, if there is one that may end.
bool makeRoomAmong(const XPCListenerState &state, uid_t user) {
    XPCServedConnection *least = nullptr;
    for (const auto &each : state.connections) {
        if (each->user() == user && !each->hasEnded() && !each->isBeingAnswered() &&
            (least == nullptr || each->isMissedLessThan(*least))) {
            least = each.get();
        }
    }
    if (least != nullptr) {
        least->end();
    }
    return least != nullptr;
}

/// Sees to it that there is a place for one more connection of this user.
bool hasRoom(XPCListenerState &state, uid_t newcomer) {
    const std::lock_guard lock(state.mutex);
    const auto &limits = state.options.limits;
    if (state.connections.size() >= limits.connections * endingReserve) {
        return false;
    }
    std::map<uid_t, std::size_t> counts;
    std::size_t all = 0;
    for (const auto &each : state.connections) {
        if (!each->hasEnded()) {
            ++counts[each->user()];
            ++all;
        }
    }
    bool isThere = true;
    if (counts[newcomer] >= limits.connectionsPerUser) {
        isThere = makeRoomAmong(state, newcomer); // a user's crowd is that user's own problem
    } else if (all >= limits.connections) {
        const auto most =
            std::ranges::max_element(counts, {}, &std::pair<const uid_t, std::size_t>::second);
        isThere = makeRoomAmong(state, most->first);
    }
    state.changed.notify_all(); // one that waits for its turn may have been ended
    return isThere;
}

void serve(const std::shared_ptr<XPCListenerState> &state, Newcomer newcomer) {
    const auto user = newcomer.user;
    // One newcomer too many for the machine must not cost the others their service.
    try {
        if (isGone(newcomer.socket)) {
            return;
        }
        if (!hasRoom(*state, user)) {
            state->refused(user, "There is no room for one more connection.");
            return;
        }
        const auto connection =
            std::make_shared<XPCServedConnection>(state, std::move(newcomer.socket), user);
        state->delegate->shouldAcceptNewConnection(*connection);
    } catch (const std::exception &error) {
        state->refused(user, error.what());
    }
}

} // namespace

XPCListenerState::XPCListenerState(UniqueFD listeningSocket, XPCListener::Options given)
    : options(std::move(given)),
      verificationsPerUser(std::max(std::thread::hardware_concurrency() / 2, 1U)),
      socket(listening(std::move(listeningSocket))),
      executable(ownExecutable()),
      verifier(options.anchors) {}

void XPCListenerState::refused(uid_t user, const char *reason) const noexcept {
    try {
        delegate->connectionRefused(user, reason);
    } catch (const std::exception &) {
        return;
    }
}

XPCListener::XPCListener(UniqueFD socket, Options options)
    : state_(std::make_shared<XPCListenerState>(std::move(socket), std::move(options))) {}

XPCListener::~XPCListener() {
    std::unique_lock lock(state_->mutex);
    for (const auto &connection : state_->connections) {
        connection->end();
    }
    state_->changed.notify_all();
    state_->changed.wait(lock, [&] { return state_->connections.empty(); });
}

void XPCListener::setDelegate(XPCListenerDelegate *delegate) {
    state_->delegate = delegate;
}

void XPCListener::run(const std::stop_token &stop) {
    const UniqueFD stopped(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopped) {
        throw PlatformError::posix(errno);
    }
    const std::stop_callback wake(stop, [&] { ::eventfd_write(stopped.get(), 1); });
    while (!stop.stop_requested()) {
        std::array<pollfd, 3> events{
            pollfd{.fd = stopped.get(), .events = POLLIN, .revents = 0},
            {.fd = state_->verifier.ended().get(), .events = POLLIN, .revents = 0},
            {.fd = state_->socket.get(), .events = POLLIN, .revents = 0}};
        if (::poll(events.data(), events.size(), -1) < 0 && errno != EINTR) {
            throw PlatformError::posix(errno);
        }
        if (events[1].revents != 0) {
            throw PlatformError(PlatformError::Domain::posix, ECHILD,
                                "The process that verifies peers has ended.");
        }
        if (auto newcomer = accept(*state_)) {
            serve(state_, *std::move(newcomer));
        }
    }
}

} // namespace klarbox
