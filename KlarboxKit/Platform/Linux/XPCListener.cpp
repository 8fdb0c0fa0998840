#include "KlarboxKit/Platform/XPCListener.hpp"

#include "KlarboxKit/Platform/Linux/PeerProcess.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

namespace {

using Clock = std::chrono::steady_clock;

/// A peer that may not be served, and why.
PlatformError refusal(std::string reason) {
    return {PlatformError::Domain::posix, EACCES, std::move(reason)};
}

timeval timeLimit(std::chrono::milliseconds limit) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
    return {.tv_sec = seconds.count(),
            .tv_usec = std::chrono::microseconds(limit - seconds).count()};
}

/// How often it is looked whether a place has become free, while somebody waits for one.
constexpr int newcomersTick = 5;

/// Peers that are let in before those that wait are looked at again: all of them are looked at, so
/// that one look for each would cost everybody time when a crowd connects.
constexpr int acceptedAtOnce = 64;

/// A peer that has not been given a place yet.
struct Newcomer {
    UniqueFD socket;
    uid_t user;
    Clock::time_point since;
};

/// Whether the peer ended the connection, so that nothing it asked for could be answered.
bool isGone(const UniqueFD &socket) {
    pollfd events{.fd = socket.get(), .events = 0, .revents = 0};
    return ::poll(&events, 1, 0) == 1 && (events.revents & (POLLHUP | POLLERR)) != 0;
}

bool hasPendingPacket(const UniqueFD &socket) {
    pollfd pending{.fd = socket.get(), .events = POLLIN, .revents = 0};
    return ::poll(&pending, 1, 0) != 0;
}

} // namespace

/// Everything the connections' threads share; they keep it alive.
struct XPCListener::State : std::enable_shared_from_this<State> {
    explicit State(Options given) : options(std::move(given)) {}

    const Options options;
    UniqueFD socket;
    UniqueFD executable; ///< of this process, for clients to verify
    XPCListenerDelegate *delegate = nullptr;

    mutable std::mutex mutex;
    std::condition_variable changed; ///< a connection or a verification ended
    std::list<std::shared_ptr<Connection>> connections;
    std::map<uid_t, std::size_t> verifications; ///< under way, by user
    bool stopping = false;

    /// Tells the delegate. When even that fails (there is no memory), nobody is told.
    void refused(uid_t user, const char *reason) const noexcept {
        try {
            delegate->connectionRefused(user, reason);
        } catch (const std::exception &) {
            return;
        }
    }
    std::optional<Newcomer> accept() const;
    bool hasRoom(uid_t user);
    void dropSilent(const std::function<bool(const Connection &)> &eligible);
    void serve(UniqueFD newcomer, uid_t user);
};

class XPCListener::Connection final : public XPCIncomingConnection,
                                      public std::enable_shared_from_this<Connection> {
public:
    Connection(std::shared_ptr<State> state, UniqueFD socket, uid_t user)
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

    // The rest under the state's mutex.
    bool isBusy = true; ///< being verified or answered, so not to be blamed for being silent
    bool wasAnswered = false;
    bool hasEnded = false; ///< so that no reply could be sent
    Clock::time_point lastHeard = Clock::now();
    /// Makes its thread end. The socket is open for as long as the state lists the connection.
    void end() {
        hasEnded = true;
        ::shutdown(socket_.get(), SHUT_RDWR);
    }

private:
    void serve();
    void verify();
    void awaitTurn();
    void holdToClientRules(const PeerProcess &peer);
    bool answerNext();
    bool beginAnswer();
    void setIdle(bool answered);

    std::shared_ptr<State> state_;
    UniqueFD socket_;
    uid_t user_;
    pid_t peer_ = -1;
    std::optional<CodeRequirement> requirement_;
    XPCInterface interface_;
};

// MARK: One connection, on its own thread

void XPCListener::Connection::resume() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->connections.push_back(shared_from_this());
    }
    try {
        std::thread([self = shared_from_this()]() mutable {
            self->serve();
            const auto state = self->state_;
            std::unique_lock lock(state->mutex);
            std::erase(state->connections, self);
            self.reset();
            // Notified once this thread is entirely gone, so that whoever waits for it may unload
            // what it ran.
            std::notify_all_at_thread_exit(state->changed, std::move(lock));
        }).detach();
    } catch (...) {
        const std::lock_guard lock(state_->mutex);
        std::erase(state_->connections, shared_from_this());
        throw;
    }
}

void XPCListener::Connection::serve() {
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

void XPCListener::Connection::verify() {
    if (!requirement_) {
        throw refusal("There is no requirement that a peer could satisfy.");
    }
    const auto peer = PeerProcess::of(socket_);
    peer_ = peer.pid();
    const Code code(peer.openExecutable());
    awaitTurn();
    struct Turn {
        State &state;
        uid_t user;
        ~Turn() {
            {
                const std::lock_guard lock(state.mutex);
                if (--state.verifications[user] == 0) {
                    state.verifications.erase(user);
                }
            }
            state.changed.notify_all();
        }
    };
    const auto information = [&] {
        const Turn turn{*state_, user_};
        return code.signingInformation(state_->options.anchors);
    }();
    if (!requirement_->isSatisfiedBy(information)) {
        throw refusal(fmt::format("The program “{}” of the team “{}” is not the one required.",
                                  information.identifier, information.teamID));
    }
    // While a program runs its file cannot be written to; so the bytes verified are the ones that
    // run only if the program ran until now.
    if (!peer.isAlive()) {
        throw PlatformError::posix(ESRCH);
    }
    if (information.isXPCClient) {
        holdToClientRules(peer);
    }
    setIdle(false);
}

void XPCListener::Connection::awaitTurn() {
    std::unique_lock lock(state_->mutex);
    auto &underWay = state_->verifications;
    state_->changed.wait(lock, [&] {
        const auto found = underWay.find(user_);
        return state_->stopping || found == underWay.end() ||
               found->second < state_->options.limits.verificationsPerUser;
    });
    ++underWay[user_];
}

void XPCListener::Connection::holdToClientRules(const PeerProcess &peer) {
    const auto &group = state_->options.clientGroup;
    if (group && peer.group() != *group) {
        throw refusal("The client did not connect with the group of the installed application.");
    }
    // Whoever connected may have been another program, which sent something and then executed the
    // client in its own place.
    if (hasPendingPacket(socket_)) {
        throw refusal("The client sent something before it was verified.");
    }
    sendPacket(socket_, XPCPacket::welcome, state_->executable.get());
}

bool XPCListener::Connection::answerNext() {
    const auto packet = receivePacket(socket_, XPC::maximumMessageSize);
    // A child of the peer, or a program it handed the connection to, was not verified.
    if (!packet || packet->sender.pid != peer_) {
        return false;
    }
    const auto nul = packet->bytes.find('\0');
    if (nul == std::string::npos) {
        return false;
    }
    const auto *method = interface_.find(std::string_view(packet->bytes).substr(0, nul));
    if (method == nullptr) {
        return false;
    }
    if (!beginAnswer()) {
        return false;
    }
    std::string answer;
    try {
        (*method)(packet->bytes.substr(nul + 1),
                  [&](std::string_view data) { answer.assign(data); }, {});
    } catch (const std::exception &) {
        // The peer waits for exactly one reply; an empty one tells it that there is no answer.
        answer.clear();
    }
    sendPacket(socket_, answer);
    setIdle(true);
    return true;
}

/// False when the connection was ended since the packet was received: nothing may be done that
/// nobody would be told of.
bool XPCListener::Connection::beginAnswer() {
    const std::lock_guard lock(state_->mutex);
    isBusy = !hasEnded;
    return isBusy;
}

void XPCListener::Connection::setIdle(bool answered) {
    const std::lock_guard lock(state_->mutex);
    isBusy = false;
    wasAnswered = wasAnswered || answered;
    lastHeard = Clock::now();
}

// MARK: The listener

XPCListener::XPCListener(UniqueFD socket, Options options)
    : state_(std::make_shared<State>(std::move(options))) {
    // Connections inherit it, so that not even the first packet comes without its sender. Whoever
    // made the socket did the same before anybody could connect.
    requestSenders(socket);
    const int flags = ::fcntl(socket.get(), F_GETFL);
    // A newcomer may be gone again between being announced and being accepted.
    if (flags < 0 || ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        throw PlatformError::posix(errno);
    }
    state_->socket = std::move(socket);
    state_->executable.reset(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    if (!state_->executable) {
        throw PlatformError::posix(errno);
    }
}

XPCListener::~XPCListener() {
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    for (const auto &connection : state_->connections) {
        connection->end();
    }
    state_->changed.notify_all();
    state_->changed.wait(lock, [&] { return state_->connections.empty(); });
}

void XPCListener::setDelegate(XPCListenerDelegate *delegate) {
    state_->delegate = delegate;
}

std::size_t XPCListener::connectionCount() const {
    const std::lock_guard lock(state_->mutex);
    return state_->connections.size();
}

/// Ends one of the eligible connections that have been silent for too long, if there is one.
void XPCListener::State::dropSilent(const std::function<bool(const Connection &)> &eligible) {
    const auto now = Clock::now();
    Connection *dropped = nullptr;
    auto longest = Clock::duration::zero();
    for (const auto &connection : connections) {
        const auto &limits = options.limits;
        const auto over =
            now - connection->lastHeard - (connection->wasAnswered ? limits.pause : limits.silence);
        if (!connection->isBusy && over >= longest && eligible(*connection)) {
            dropped = connection.get();
            longest = over;
        }
    }
    if (dropped != nullptr) {
        dropped->end();
    }
}

/// Whether one more connection of this user may be served now; if not, whoever is silent makes
/// room.
bool XPCListener::State::hasRoom(uid_t user) {
    const std::lock_guard lock(mutex);
    const auto ofUser = [&](const Connection &connection) { return connection.user() == user; };
    const auto count = static_cast<std::size_t>(
        std::ranges::count_if(connections, [&](const auto &c) { return ofUser(*c); }));
    if (count >= options.limits.connectionsPerUser) {
        dropSilent(ofUser); // a user's own crowd is that user's own problem
        return false;
    }
    if (connections.size() >= options.limits.connections) {
        dropSilent([](const Connection &) { return true; });
        return false;
    }
    return true;
}

void XPCListener::State::serve(UniqueFD newcomer, uid_t user) {
    // One newcomer too many for the machine must not cost the others their service.
    try {
        const auto connection =
            std::make_shared<Connection>(shared_from_this(), std::move(newcomer), user);
        delegate->shouldAcceptNewConnection(*connection);
    } catch (const std::exception &error) {
        refused(user, error.what());
    }
}

void XPCListener::run(const std::stop_token &stop) {
    const UniqueFD stopped(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopped) {
        throw PlatformError::posix(errno);
    }
    const std::stop_callback wake(stop, [&] {
        ::eventfd_write(stopped.get(), 1);
        const std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        state_->changed.notify_all();
    });
    const auto &limits = state_->options.limits;
    std::list<Newcomer> newcomers;
    while (!stop.stop_requested()) {
        std::array<pollfd, 2> events{pollfd{.fd = stopped.get(), .events = POLLIN, .revents = 0},
                                     {.fd = state_->socket.get(), .events = POLLIN, .revents = 0}};
        if (::poll(events.data(), events.size(), newcomers.empty() ? -1 : newcomersTick) < 0 &&
            errno != EINTR) {
            throw PlatformError::posix(errno);
        }
        for (int accepted = 0; accepted < acceptedAtOnce; ++accepted) {
            auto newcomer = state_->accept();
            if (!newcomer) {
                break;
            }
            const auto waiting = std::ranges::count(newcomers, newcomer->user, &Newcomer::user);
            if (static_cast<std::size_t>(waiting) < limits.newcomersPerUser) {
                newcomers.push_back(*std::move(newcomer));
            } else {
                state_->refused(newcomer->user, "Too many of the user's connections wait.");
            }
        }
        for (auto next = newcomers.begin(); next != newcomers.end();) {
            if (isGone(next->socket)) {
                // The place is for somebody who still wants it.
            } else if (state_->hasRoom(next->user)) {
                state_->serve(std::move(next->socket), next->user);
            } else if (Clock::now() - next->since >= limits.patience) {
                state_->refused(next->user, "There is no room for one more connection.");
            } else {
                ++next;
                continue;
            }
            next = newcomers.erase(next);
        }
    }
}

/// The next peer that connected; nothing when there is none, or nothing can be done about it.
std::optional<Newcomer> XPCListener::State::accept() const {
    UniqueFD peer(::accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
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
    const auto limit = timeLimit(options.limits.unreadReply);
    if (::getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        ::setsockopt(peer.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        return std::nullopt;
    }
    return Newcomer{std::move(peer), credentials.uid, Clock::now()};
}

} // namespace klarbox
