#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <chrono>
#include <functional>
#include <stop_token>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>

namespace klarbox {

/// Why a service cannot be used.
class XPCError : public PlatformError {
public:
    enum class Kind {
        unreachable, ///< nobody listens
        silent,      ///< somebody does, and does not answer
        turnedAway,  ///< the service does not accept this program
        unverified,  ///< what answers is not the service required
        interrupted  ///< the connection ended
    };

    XPCError(Kind kind, int code, std::string message)
        : PlatformError(Domain::posix, code, std::move(message)),
          kind_(kind) {}

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

/// The client's end of a connection to a service.
///
/// Not for several threads at once. A connection on which anything threw is of no further use.
class XPCConnection {
public:
    struct Service {
        FileURL socket;
        std::string requirement; ///< what the service's program must satisfy
        uid_t user = 0;          ///< who must be running it
        CodeAnchors anchors = {};
        /// How long the service may take to let this program in.
        std::chrono::milliseconds patience{10'000};
    };

    /// Connects, waits until the service has verified this program, and verifies the service.
    /// Throws `PlatformError`: nobody listens, this program is turned away, or the service is not
    /// the one required.
    explicit XPCConnection(const Service &service);

    /// What the service's signature vouches for.
    const SigningInformation &service() const { return information_; }

    /// Called once a second while a reply is awaited, with how long that has been, and with zero
    /// when it is over; not at all when it is over sooner. On the thread that waits; must not
    /// throw.
    using Waiting = std::function<void(std::chrono::seconds elapsed)>;

    /// Sends one message and waits for its reply, however long that takes. A requested stop ends
    /// the wait and the connection, from which the service learns that nobody wants its answer.
    /// Throws `XPCError`.
    std::string send(std::string_view selector, std::string_view argument,
                     std::stop_token stop = {}, const Waiting &waiting = {});

    /// Whether the last `send` failed before its message left this process.
    bool lastMessageWasUnsent() const { return unsent_; }

private:
    UniqueFD socket_;
    pid_t servicePID_ = -1;
    uid_t serviceUser_ = 0;
    SigningInformation information_;
    bool unsent_ = false;
};

} // namespace klarbox
