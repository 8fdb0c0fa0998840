#include "KlarboxKit/Platform/Linux/PeerVerifier.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/Verification.hpp"
#include "KlarboxKit/Platform/Linux/VerifierProcess.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

std::pair<UniqueFD, UniqueFD> connectedSockets() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw PlatformError::posix(errno);
    }
    return {UniqueFD(ends[0]), UniqueFD(ends[1])};
}

/// The executable of a running program, to be read.
UniqueFD openForVerification(const UniqueFD &executable) {
    UniqueFD opened(::open(fmt::format("/proc/self/fd/{}", executable.get()).c_str(),
                           O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!opened) {
        throw PlatformError::posix(errno);
    }
    return opened;
}

/// Waits for a packet of the conversation for as long as somebody waits for what comes of it.
void awaitPacket(const UniqueFD &conversation, const UniqueFD &connection,
                 std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    std::array<pollfd, 2> events{
        pollfd{.fd = conversation.get(), .events = POLLIN, .revents = 0},
        {.fd = connection.get(), .events = 0, .revents = 0}}; // its end is always told
    int ready = 0;
    do {
        ready = ::poll(events.data(), events.size(),
                       static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    if (events[0].revents != 0) {
        return;
    }
    // The peer is told at once; this thread stays until the other process has noticed, so that
    // what it still works on counts as this peer's.
    ::shutdown(connection.get(), SHUT_RDWR);
    ::shutdown(conversation.get(), SHUT_WR);
    while (receivePacket(conversation, Verification::longestPacket, true)) {
    }
    throw Verification::refusal(ready == 0 ? "The verification took too long."
                                           : "The peer was gone before it was verified.");
}

} // namespace

PeerVerifier::PeerVerifier(const CodeAnchors &anchors) {
    auto [own, other] = connectedSockets();
    pid_ = ::fork();
    if (pid_ < 0) {
        throw PlatformError::posix(errno);
    }
    if (pid_ == 0) {
        own.reset();
        VerifierProcess::run(std::move(other), anchors);
    }
    control_ = std::move(own);
    other.reset();
    const auto first = receivePacket(control_, Verification::longestPacket);
    if (!first || first->bytes != VerifierProcess::ready) {
        throw Verification::refusal(fmt::format(
            "Peers cannot be verified: {}", first ? first->bytes : "the process for it ended."));
    }
}

PeerVerifier::~PeerVerifier() {
    control_.reset();
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

PeerVerifier::Verified PeerVerifier::verify(const PeerProcess &peer, const UniqueFD &connection,
                                            std::chrono::steady_clock::time_point deadline) const {
    auto sockets = connectedSockets();
    const auto conversation = std::move(sockets.first);
    sendPacket(control_, "peer", sockets.second.get());
    sockets.second.reset();
    sendPacket(conversation, fmt::format("{}", peer.pid()), peer.descriptor().get());
    const auto next = [&] { awaitPacket(conversation, connection, deadline); };
    Verified verified;
    next();
    verified.program.executable = Verification::receiveDescriptor(conversation);
    next();
    verified.program.memory = Verification::receiveDescriptor(conversation);
    const auto executable = openForVerification(verified.program.executable);
    sendPacket(conversation, "executable", executable.get());
    sendPacket(conversation, "signature", Code::openSignature(executable).get());
    next();
    const auto verdict = receivePacket(conversation, Verification::longestPacket);
    if (!verdict) {
        throw Verification::refusal("The verification was broken off.");
    }
    verified.information = Verification::decoded(verdict->bytes);
    return verified;
}

} // namespace klarbox
