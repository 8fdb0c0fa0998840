#include "KlarboxKit/Platform/Linux/XPCServedConnection.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <tuple>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// How often a connection that waits for its turn looks whether its peer still does.
constexpr std::chrono::milliseconds tick{50};

/// A peer that may not be served, and why.
PlatformError refusal(std::string reason) {
    return {PlatformError::Domain::posix, EACCES, std::move(reason)};
}

bool hasPendingPacket(const UniqueFD &socket) {
    pollfd pending{.fd = socket.get(), .events = POLLIN, .revents = 0};
    return ::poll(&pending, 1, 0) != 0;
}

} // namespace

bool isGone(const UniqueFD &socket) {
    pollfd events{.fd = socket.get(), .events = 0, .revents = 0};
    return ::poll(&events, 1, 0) == 1 && (events.revents & (POLLHUP | POLLERR)) != 0;
}

void XPCServedConnection::end() {
    hasEnded_ = true;
    ::shutdown(socket_.get(), SHUT_RDWR);
}

bool XPCServedConnection::isMissedLessThan(const XPCServedConnection &other) const {
    return std::tuple(wasAnswered_, lastHeard_) < std::tuple(other.wasAnswered_, other.lastHeard_);
}

void XPCServedConnection::resume() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->connections.push_back(shared_from_this());
    }
    try {
        std::thread([self = shared_from_this()] {
            self->serve();
            // Kept by this thread, too: whoever waits for the last connection to be gone may be
            // done with the listener before this has told.
            const auto state = self->state_;
            const std::lock_guard lock(state->mutex);
            std::erase(state->connections, self);
            state->changed.notify_all();
        }).detach();
    } catch (...) {
        const std::lock_guard lock(state_->mutex);
        std::erase(state_->connections, shared_from_this());
        throw;
    }
}

void XPCServedConnection::serve() {
    try {
        verify();
    } catch (const std::exception &error) {
        state_->refused(user_, error.what());
        return;
    }
    try {
        while (answerNext()) {
        }
    } catch (const std::exception &) {
        // The peer is gone, or does not take its replies: there is nobody left to tell.
    }
}

void XPCServedConnection::verify() {
    if (!requirement_) {
        throw refusal("There is no requirement that a peer could satisfy.");
    }
    const auto deadline = Clock::now() + state_->options.limits.verification;
    const auto peer = PeerProcess::of(socket_);
    peer_ = peer.pid();
    awaitTurn(deadline);
    auto verified = state_->verifier.verify(peer, socket_, deadline);
    if (!enter(Phase::listening)) {
        throw refusal("Others needed the place.");
    }
    const auto &information = verified.information;
    if (!requirement_->isSatisfiedBy(information)) {
        throw refusal(fmt::format("The program “{}” of the team “{}” is not the one required.",
                                  information.identifier, information.teamID));
    }
    // While a program runs its file cannot be written to; so the bytes verified are the ones that
    // run only if the program ran until now. What came by now it need not have sent.
    if (!verified.program.isRunning()) {
        throw PlatformError::posix(ESRCH);
    }
    if (hasPendingPacket(socket_)) {
        throw refusal("The peer sent something before it was verified.");
    }
    program_.memory = std::move(verified.program.memory);
    if (information.isXPCClient) {
        requireGroup(peer);
        sendPacket(socket_, XPCPacket::welcome, state_->executable.get());
    }
}

/// Waits until the program may be verified: those of one user in the order in which they came.
void XPCServedConnection::awaitTurn(Clock::time_point deadline) {
    std::unique_lock lock(state_->mutex);
    while (!isItsTurn()) {
        if (hasEnded_ || isGone(socket_)) {
            throw refusal("The peer was gone before it was verified.");
        }
        if (Clock::now() >= deadline) {
            throw refusal("Too many of the user's programs wait to be verified.");
        }
        state_->changed.wait_for(lock, tick);
    }
    phase_ = Phase::verifying;
}

bool XPCServedConnection::isItsTurn() const {
    std::size_t underWay = 0;
    bool isFirst = true;
    for (const auto &each : state_->connections) {
        if (each.get() == this) {
            break;
        }
        isFirst = isFirst && (each->user_ != user_ || each->phase_ != Phase::waiting);
    }
    for (const auto &each : state_->connections) {
        underWay += each->user_ == user_ && each->phase_ == Phase::verifying ? 1 : 0;
    }
    return isFirst && underWay < state_->verificationsPerUser;
}

void XPCServedConnection::requireGroup(const PeerProcess &peer) const {
    const auto &group = state_->options.clientGroup;
    if (group && peer.group() != *group) {
        throw refusal("The client did not connect with the group of the installed application.");
    }
}

bool XPCServedConnection::answerNext() {
    const auto packet = receivePacket(socket_, XPC::maximumMessageSize);
    // A child of the peer, a program it handed the connection to, one that it has become, or one
    // that got its number: none of them was verified.
    if (!packet || packet->sender.pid != peer_ || !program_.isRunning()) {
        return false;
    }
    const auto nul = packet->bytes.find('\0');
    if (nul == std::string::npos) {
        return false;
    }
    const auto *method = interface_.find(std::string_view(packet->bytes).substr(0, nul));
    // Nothing may be done that nobody would be told of.
    if (method == nullptr || !enter(Phase::answering)) {
        return false;
    }
    std::string answer;
    try {
        (*method)(
            packet->bytes.substr(nul + 1), [&](std::string_view data) { answer.assign(data); },
            [&] { return isGone(socket_); });
    } catch (const std::exception &) {
        // The peer waits for exactly one reply; an empty one tells it that there is no answer.
        answer.clear();
    }
    sendPacket(socket_, answer);
    return enter(Phase::listening);
}

/// Begins another phase, unless the connection was ended meanwhile.
bool XPCServedConnection::enter(Phase phase) {
    const std::lock_guard lock(state_->mutex);
    wasAnswered_ = wasAnswered_ || phase_ == Phase::answering;
    if (std::exchange(phase_, phase) == Phase::verifying) {
        state_->changed.notify_all(); // another of the user's has its turn
    }
    lastHeard_ = Clock::now();
    return !hasEnded_;
}

} // namespace klarbox
