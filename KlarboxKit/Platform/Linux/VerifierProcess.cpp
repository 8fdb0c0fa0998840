#include "KlarboxKit/Platform/Linux/VerifierProcess.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/Capabilities.hpp"
#include "KlarboxKit/Platform/Linux/RunningProgram.hpp"
#include "KlarboxKit/Platform/Linux/SystemCallFilter.hpp"
#include "KlarboxKit/Platform/Linux/Verification.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <grp.h>
#include <linux/capability.h>
#include <optional>
#include <poll.h>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace klarbox {

namespace {

/// The user that the other process becomes; on a machine without it, the one who owns nothing.
constexpr const char *verifierName = "klarbox-verifier";
constexpr unsigned nobody = 65534;

/// Whether the other end will send nothing more.
bool isClosed(const UniqueFD &socket) {
    pollfd events{.fd = socket.get(), .events = POLLRDHUP, .revents = 0};
    return ::poll(&events, 1, 0) == 1;
}

std::string verdictOn(const UniqueFD &conversation, Code code, const CodeAnchors &anchors) {
    try {
        const auto verdict = Verification::encoded(
            code.signingInformation(anchors, [&] { return isClosed(conversation); }));
        return verdict.size() <= Verification::longestPacket
                   ? verdict
                   : Verification::encodedRefusal("Its identifier is too long.");
    } catch (const PlatformError &error) {
        return Verification::encodedRefusal(
            std::string_view(error.message()).substr(0, Verification::longestPacket / 8));
    }
}

void converse(const UniqueFD &conversation, const CodeAnchors &anchors) {
    std::string number;
    const auto process = Verification::receiveDescriptor(conversation, &number);
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
    auto executable = Verification::receiveDescriptor(conversation);
    auto signature = Verification::receiveDescriptor(conversation);
    sendPacket(conversation,
               verdictOn(conversation, Code(std::move(executable), std::move(signature)), anchors));
}

/// User and group that the process is to have.
std::pair<uid_t, gid_t> verifierUser() {
    // There is one thread yet. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const auto *found = ::getpwnam(verifierName);
    return found != nullptr ? std::pair(found->pw_uid, found->pw_gid)
                            : std::pair<uid_t, gid_t>(nobody, nobody);
}

void becomeVerifier() {
    // A helper that root did not start can look at nobody else's processes and needs no other user.
    if (hasCapability(CAP_SYS_PTRACE)) {
        const auto [user, group] = verifierUser();
        const bool isOther = ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 &&
                             ::setresgid(group, group, group) == 0 &&
                             ::setgroups(0, nullptr) == 0 && ::setresuid(user, user, user) == 0;
        // A namespace that does not know the group or the user has no power over a machine.
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
    sendPacket(control, VerifierProcess::ready);
    while (auto packet = receivePacket(control, Verification::longestPacket, true)) {
        // Closing a conversation without a verdict says that there is none; a lack of threads or
        // memory costs one peer its verification.
        try {
            std::thread([conversation = std::move(packet->attachment), &anchors] {
                try {
                    converse(conversation, anchors);
                } catch (const std::exception &) {
                    return;
                }
            }).detach();
        } catch (const std::exception &) {
            continue;
        }
    }
}

} // namespace

void VerifierProcess::run(UniqueFD control, const CodeAnchors &anchors) {
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

} // namespace klarbox
