#pragma once

#include "KlarboxKit/Platform/CodeSigning.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Platform/XPC.hpp"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace klarbox {

/// A new connection as the listener's delegate sees it: set up, then resumed.
class XPCIncomingConnection {
public:
    virtual ~XPCIncomingConnection() = default;

    /// The requirement that the peer's program must satisfy before a byte of what it sent is read.
    /// A text that is no requirement is satisfied by nobody; so is none at all.
    virtual void setCodeSigningRequirement(std::string requirement) = 0;
    virtual void setExportedInterface(XPCInterface interface) = 0;
    /// Starts serving the connection on a thread of its own.
    virtual void resume() = 0;
};

/// Decides about new connections.
class XPCListenerDelegate {
public:
    virtual ~XPCListenerDelegate() = default;

    /// False, or leaving the connection without resuming it, closes it. Called from the listener's
    /// thread; it holds up other newcomers for as long as it takes.
    virtual bool shouldAcceptNewConnection(XPCIncomingConnection &connection) = 0;

    /// A peer of this user was turned away for this reason (a sentence). Called from any thread.
    virtual void connectionRefused(uid_t user, std::string_view reason) = 0;
};

/// How much of the process one listener and one user may take.
struct XPCLimits {
    /// In all. A thread each, so this bounds memory: a waiting thread holds some 30 kB.
    std::size_t connections = 256;
    /// Of one user: several times what an application with many requests in flight opens, and too
    /// few for one user to keep all others out.
    std::size_t connectionsPerUser = 96;
    /// Of one user, newcomers that wait for a place of their user's or at all; one more is turned
    /// away. A descriptor each.
    std::size_t newcomersPerUser = 256;
    /// How long they wait before they are turned away.
    std::chrono::milliseconds patience{5000};
    /// Programs of one user that are looked at at the same time: hashing is the one thing that an
    /// unknown peer can make this process work on, and must leave processor time to others.
    std::size_t verificationsPerUser = 4;
    /// How long a peer that has not asked for anything yet may be silent while another waits for
    /// its place: hardly longer than anyone should wait.
    std::chrono::milliseconds silence{100};
    /// How long one may be that was answered before. Cut off, it connects again.
    std::chrono::milliseconds pause{5000};
    /// How long a peer may leave replies unread.
    std::chrono::milliseconds unreadReply{10'000};
};

/// Accepts connections on a listening socket and serves each on a thread of its own.
///
/// A peer whose program declares itself a client (every program that contains `XPCConnection`
/// does) is held to more than its signature, because copies of such programs are in everyone's
/// hands: what it sent before it was verified is not accepted, since another program may have sent
/// it and then turned itself into the client; and where the machine has the clients' group, it must
/// have connected with it (installed clients are set-group-ID, which keeps debuggers, preloaded
/// libraries and private copies out). In return it is told when it may begin, with this process's
/// executable attached, so that it can verify this side.
class XPCListener {
public:
    struct Options {
        CodeAnchors anchors = {};
        std::optional<gid_t> clientGroup = std::nullopt; ///< see above; none: not demanded
        XPCLimits limits = {};
    };

    /// Takes a listening socket. Throws `PlatformError`.
    XPCListener(UniqueFD socket, Options options);
    /// Ends all connections and waits for their threads.
    ~XPCListener();

    /// The delegate must outlive the listener.
    void setDelegate(XPCListenerDelegate *delegate);

    /// Accepts connections on the calling thread until asked to stop. Uses no processor time while
    /// nobody connects. Throws `PlatformError` when the listening socket fails.
    void run(const std::stop_token &stop = {});

    /// Connections that are being served at this moment.
    std::size_t connectionCount() const;

private:
    struct State;
    class Connection;

    std::shared_ptr<State> state_;
};

} // namespace klarbox
