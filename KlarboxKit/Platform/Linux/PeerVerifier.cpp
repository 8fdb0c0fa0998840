#include "KlarboxKit/Platform/Linux/PeerVerifier.hpp"

#include "KlarboxKit/Platform/JSON.hpp"
#include "KlarboxKit/Platform/Linux/Capabilities.hpp"
#include "KlarboxKit/Platform/Linux/SystemCallFilter.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <optional>
#include <poll.h>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace klarbox {

namespace {

// A conversation about one peer, on a socket of its own: this process sends the peer's number and
// descriptor; the other answers with the executable and the memory of the peer's program; this one
// opens the executable and the signature, which takes power over files, and sends both; the other
// sends the verdict. Whoever closes the socket ends the conversation.

constexpr std::size_t longestVerdict = std::size_t{64} << 10;

/// The user that the other process becomes; on a machine without it, the one who owns nothing.
constexpr const char *verifierName = "klarbox-verifier";
constexpr unsigned nobody = 65534;

PlatformError refusal(std::string reason) {
    return {PlatformError::Domain::posix, EACCES, std::move(reason)};
}

std::pair<UniqueFD, UniqueFD> connectedSockets() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw PlatformError::posix(errno);
    }
    return {UniqueFD(ends[0]), UniqueFD(ends[1])};
}

/// Whether the other end will send nothing more.
bool isClosed(const UniqueFD &socket) {
    pollfd events{.fd = socket.get(), .events = POLLRDHUP, .revents = 0};
    return ::poll(&events, 1, 0) == 1;
}

/// The next packet, which must have a descriptor with it.
UniqueFD receiveDescriptor(const UniqueFD &socket, std::string *bytes = nullptr) {
    auto packet = receivePacket(socket, longestVerdict, true);
    if (!packet || !packet->attachment) {
        // Instead of a descriptor there may be a reason why there is none.
        throw refusal(packet ? packet->bytes : "The verification was broken off.");
    }
    if (bytes != nullptr) {
        *bytes = std::move(packet->bytes);
    }
    return std::move(packet->attachment);
}

// The other process

std::string encoded(const SigningInformation &information) {
    JSON verdict;
    verdict["endsInAnchor"] = information.endsInAnchor;
    verdict["identifier"] = information.identifier;
    verdict["teamID"] = information.teamID;
    verdict["version"] = information.version;
    verdict["isXPCClient"] = information.isXPCClient;
    return encodeJSON(verdict);
}

std::string encodedRefusal(std::string_view reason) {
    JSON verdict;
    verdict["refusal"] = reason;
    return encodeJSON(verdict);
}

std::string verdictOn(const UniqueFD &conversation, Code code, const CodeAnchors &anchors) {
    try {
        const auto verdict =
            encoded(code.signingInformation(anchors, [&] { return isClosed(conversation); }));
        return verdict.size() <= longestVerdict ? verdict
                                                : encodedRefusal("Its identifier is too long.");
    } catch (const PlatformError &error) {
        return encodedRefusal(std::string_view(error.message()).substr(0, longestVerdict / 8));
    }
}

void converse(const UniqueFD &conversation, const CodeAnchors &anchors) {
    std::string number;
    const auto process = receiveDescriptor(conversation, &number);
    pid_t pid = 0;
    std::from_chars(number.data(), number.data() + number.size(), pid);
    std::optional<RunningProgram> program;
    try {
        program = RunningProgram::of(pid, process);
    } catch (const PlatformError &error) {
        sendPacket(conversation, error.message());
        return;
    }
    sendPacket(conversation, "executable", program->executable.get());
    sendPacket(conversation, "memory", program->memory.get());
    auto executable = receiveDescriptor(conversation);
    auto signature = receiveDescriptor(conversation);
    sendPacket(conversation,
               verdictOn(conversation, Code(std::move(executable), std::move(signature)), anchors));
}

/// User and group that the process is to have.
std::pair<uid_t, gid_t> verifierUser() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    int code = 0;
    while ((code = ::getpwnam_r(verifierName, &entry, buffer.data(), buffer.size(), &found)) ==
           ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    return found != nullptr ? std::pair(found->pw_uid, found->pw_gid)
                            : std::pair<uid_t, gid_t>(nobody, nobody);
}

void becomeVerifier() {
    // A helper that root did not start can look at nobody else's processes and needs no other user.
    if (hasCapability(CAP_SYS_PTRACE)) {
        const auto [user, group] = verifierUser();
        const bool isOther =
            ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 && ::setgroups(0, nullptr) == 0 &&
            ::setresgid(group, group, group) == 0 && ::setresuid(user, user, user) == 0;
        // A namespace that does not know the user has no power over a machine.
        if (!isOther && errno != EINVAL) {
            throw PlatformError::posix(errno);
        }
    }
    keepCapabilities({CAP_SYS_PTRACE});
    forbidSystemCalls(FileAccess::reading);
}

/// What the process does until the one that started it ends.
void serve(const UniqueFD &control, const CodeAnchors &anchors) {
    becomeVerifier();
    sendPacket(control, "ready");
    while (auto packet = receivePacket(control, longestVerdict, true)) {
        std::thread([conversation = std::move(packet->attachment), &anchors] {
            try {
                converse(conversation, anchors);
            } catch (const std::exception &) {
                // Closing the conversation without a verdict says that there is none.
            }
        }).detach();
    }
}

[[noreturn]] void run(UniqueFD control, const CodeAnchors &anchors) {
    // Nothing that the other process holds open is this one's business.
    constexpr int first = STDERR_FILENO + 1;
    if (::dup2(control.get(), first) < 0 || ::close_range(first + 1, ~0U, 0) != 0) {
        ::_exit(EXIT_FAILURE);
    }
    control.release();
    const UniqueFD inPlace(first);
    ::prctl(PR_SET_NAME, "KlarboxVerifier");
    try {
        serve(inPlace, anchors);
    } catch (const std::exception &error) {
        try {
            sendPacket(inPlace, error.what());
        } catch (const std::exception &) {
            ::_exit(EXIT_FAILURE); // nobody is left to be told
        }
        ::_exit(EXIT_FAILURE);
    }
    // Threads may still be reading; nobody waits for what they find.
    ::_exit(EXIT_SUCCESS);
}

// This process

/// The executable of a running program, to be read.
UniqueFD openForVerification(const UniqueFD &executable) {
    UniqueFD opened(::open(fmt::format("/proc/self/fd/{}", executable.get()).c_str(),
                           O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!opened) {
        throw PlatformError::posix(errno);
    }
    return opened;
}

SigningInformation decoded(const std::string &verdict) {
    const auto record = parseJSON(verdict);
    if (record.contains("refusal")) {
        throw refusal(requiredString(record, "refusal"));
    }
    return {.endsInAnchor = requiredMember(record, "endsInAnchor").get<bool>(),
            .identifier = requiredString(record, "identifier"),
            .teamID = requiredString(record, "teamID"),
            .version = requiredString(record, "version"),
            .isXPCClient = requiredMember(record, "isXPCClient").get<bool>()};
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
    while (receivePacket(conversation, longestVerdict, true)) {
    }
    throw refusal(ready == 0 ? "The verification took too long."
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
        run(std::move(other), anchors);
    }
    control_ = std::move(own);
    other.reset();
    const auto first = receivePacket(control_, longestVerdict);
    if (!first || first->bytes != "ready") {
        throw refusal(fmt::format("Peers cannot be verified: {}",
                                  first ? first->bytes : "the process for it ended."));
    }
}

PeerVerifier::~PeerVerifier() {
    control_.reset();
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

PeerVerifier::Verified PeerVerifier::verify(const PeerProcess &peer, const UniqueFD &connection,
                                            std::chrono::steady_clock::time_point deadline) const {
    auto [conversation, other] = connectedSockets();
    sendPacket(control_, "peer", other.get());
    other.reset();
    sendPacket(conversation, fmt::format("{}", peer.pid()), peer.descriptor().get());
    const auto next = [&] { awaitPacket(conversation, connection, deadline); };
    Verified verified;
    next();
    verified.program.executable = receiveDescriptor(conversation);
    next();
    verified.program.memory = receiveDescriptor(conversation);
    const auto executable = openForVerification(verified.program.executable);
    sendPacket(conversation, "executable", executable.get());
    sendPacket(conversation, "signature", Code::openSignature(executable).get());
    next();
    const auto verdict = receivePacket(conversation, longestVerdict);
    if (!verdict) {
        throw refusal("The verification was broken off.");
    }
    verified.information = decoded(verdict->bytes);
    return verified;
}

} // namespace klarbox
