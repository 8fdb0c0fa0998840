#pragma once

#include "KlarboxKit/Platform/Code.hpp"
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

/// How much of the process all peers, and those of one user, may take. A newcomer always gets a
/// place: where there is none left, the one that is missed least makes room (see `XPCListener`).
struct XPCLimits {
    /// In all. A thread each, so this bounds memory: a waiting thread holds some 30 kB.
    std::size_t connections = 256;
    /// Of one user: several times what an application with many requests in flight opens, and too
    /// few for one user to keep all others out.
    std::size_t connectionsPerUser = 96;
    /// How long a peer may take from connecting until it is verified.
    std::chrono::milliseconds verification{10'000};
    /// How long a peer may leave replies unread.
    std::chrono::milliseconds unreadReply{10'000};
};

/// Accepts connections on a listening socket and serves each on a thread of its own.
///
/// A connection belongs to the program that was verified, for as long as the process that connected
/// runs it without interruption. Nothing is accepted that was sent before the verification, since
/// another program may have sent it and then turned itself into the verified one; nor anything that
/// another process sends.
///
/// A peer whose program declares itself a client (every program that contains `XPCConnection` does)
/// is told when it may begin, with this process's executable attached, so that it can verify this
/// side. It is also held to more than its signature, because copies of such programs are in
/// everyone's hands: where the machine has the clients' group, it must have connected with it
/// (installed clients are set-group-ID, which keeps debuggers, preloaded libraries and private
/// copies out).
///
/// Verifying is the one thing that an unknown peer can make the machine work on: of one user, no
/// more programs are verified at the same time than half the cores, in the order in which they
/// came. Where a place is needed and none is free, it is taken from the user's own connections, or
/// from those of the user with most of them: from one that was never answered before one that was,
/// and of these from the one that has been silent for longest. One that is being answered keeps
/// its place.
class XPCListener {
public:
    struct Options {
        CodeAnchors anchors = {};
        std::optional<gid_t> clientGroup = std::nullopt; ///< see above; none: not demanded
        XPCLimits limits = {};
    };

    /// Takes a listening socket. Starts the process that verifies peers, so this one must have no
    /// other thread yet, and must not have given up its privileges. Throws `PlatformError`.
    XPCListener(UniqueFD socket, Options options);
    /// Ends all connections and waits for their threads.
    ~XPCListener();

    /// The delegate must outlive the listener.
    void setDelegate(XPCListenerDelegate *delegate);

    /// Accepts connections on the calling thread until asked to stop. Uses no processor time while
    /// nobody connects. Throws `PlatformError` when the listening socket fails, or peers can no
    /// longer be verified.
    void run(const std::stop_token &stop = {});

private:
    std::shared_ptr<struct XPCListenerState> state_;
};

} // namespace klarbox
