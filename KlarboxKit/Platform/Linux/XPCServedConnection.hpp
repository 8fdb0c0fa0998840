#pragma once

#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/Linux/PeerProcess.hpp"
#include "KlarboxKit/Platform/Linux/RunningProgram.hpp"
#include "KlarboxKit/Platform/Linux/XPCListenerState.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Platform/XPC.hpp"
#include "KlarboxKit/Platform/XPCListener.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace klarbox {

/// The listener's end of one connection: has the peer verified, then answers it, on a thread of its
/// own.
class XPCServedConnection final : public XPCIncomingConnection,
                                  public std::enable_shared_from_this<XPCServedConnection> {
public:
    using Clock = std::chrono::steady_clock;

    XPCServedConnection(std::shared_ptr<XPCListenerState> state, UniqueFD socket, uid_t user)
        : state_(std::move(state)),
          socket_(std::move(socket)),
          user_(user) {}

    void setCodeSigningRequirement(std::string requirement) override {
        requirement_ = CodeRequirement::parse(requirement);
    }
    void setExportedInterface(XPCInterface interface) override {
        interface_ = std::move(interface);
    }
    void resume() override;

    uid_t user() const { return user_; }

    // What follows is for those who hold the state's lock.

    /// Makes its thread end. The socket is open for as long as the state lists the connection.
    void end();
    bool hasEnded() const { return hasEnded_; }
    bool isBeingAnswered() const { return phase_ == Phase::answering; }
    /// Whether this one should make room rather than another.
    bool isMissedLessThan(const XPCServedConnection &other) const;

private:
    /// What its thread is about.
    enum class Phase { waiting, verifying, listening, answering };

    void serve();
    void verify();
    void awaitTurn(Clock::time_point deadline);
    bool isItsTurn() const;
    void requireGroup(const PeerProcess &peer) const;
    bool answerNext();
    bool enter(Phase phase);

    std::shared_ptr<XPCListenerState> state_;
    UniqueFD socket_;
    uid_t user_;
    pid_t peer_ = -1;
    RunningProgram program_;
    std::optional<CodeRequirement> requirement_;
    XPCInterface interface_;

    // Under the state's lock.
    Phase phase_ = Phase::waiting;
    bool wasAnswered_ = false;
    bool hasEnded_ = false; ///< so that no reply could be sent
    Clock::time_point lastHeard_ = Clock::now();
};

/// Whether the peer ended the connection, so that nothing it asked for could be answered.
bool isGone(const UniqueFD &socket);

} // namespace klarbox
