#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/PeerProcess.hpp"
#include "KlarboxKit/Platform/Linux/RunningProgram.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

/// A child process that connected, perhaps became another user, and stays until it is killed; and
/// the socket to it.
class Peer {
public:
    explicit Peer(uid_t user = ::geteuid()) {
        const UniqueFD listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        socklen_t size = sizeof address.sun_family;
        auto *const at = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(::bind(listener.get(), at, size), 0); // the system chooses a name
        size = sizeof address;
        EXPECT_EQ(::getsockname(listener.get(), at, &size), 0);
        EXPECT_EQ(::listen(listener.get(), 1), 0);
        pid_ = ::fork();
        if (pid_ == 0) {
            const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
            if (::connect(fd, at, size) == 0 && ::seteuid(user) == 0 &&
                ::send(fd, "x", 1, 0) == 1) {
                ::pause();
            }
            ::_exit(1);
        }
        socket_.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        char byte = 0;
        EXPECT_EQ(::recv(socket_.get(), &byte, 1, 0), 1);
    }
    ~Peer() { end(); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    void end() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    pid_t pid() const { return pid_; }
    const UniqueFD &socket() const { return socket_; }

private:
    pid_t pid_ = -1;
    UniqueFD socket_;
};

/// The code of what looking at the peer throws, 0 for nothing.
template <typename Look>
int failure(const Look &look) {
    try {
        look();
        return 0;
    } catch (const PlatformError &error) {
        return error.code();
    }
}

// Both ways, because only one of them is ever used by a given kernel.
TEST(PeerProcess, isTheOneThatConnectedAndNoneOnceThatEnded) {
    for (const auto find : {PeerProcess::of, PeerProcess::ofNumber}) {
        Peer peer;
        const auto process = find(peer.socket());
        EXPECT_EQ(process.pid(), peer.pid());
        EXPECT_EQ(process.user(), ::geteuid());
        EXPECT_EQ(process.group(), ::getegid());
        EXPECT_FALSE(hasEnded(process.descriptor()));
        const auto lookAt = [](const PeerProcess &each) {
            return RunningProgram::of(each.pid(), each.descriptor());
        };
        const auto program = lookAt(process);
        EXPECT_TRUE(program.isRunning());
        EXPECT_TRUE(std::filesystem::equivalent(
            "/proc/self/exe", fmt::format("/proc/self/fd/{}", program.executable.get())));

        peer.end();
        EXPECT_TRUE(hasEnded(process.descriptor()));
        EXPECT_FALSE(program.isRunning());
        EXPECT_EQ(failure([&] { static_cast<void>(lookAt(process)); }), ESRCH);
        EXPECT_NE(failure([&] { static_cast<void>(lookAt(find(peer.socket()))); }), 0);
    }
}

TEST(PeerProcess, isNoneWhenItsNumberBelongsToAnotherUserByNow) {
    if (!isRoot()) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    const Peer peer(65534);
    EXPECT_EQ(failure([&] { static_cast<void>(PeerProcess::ofNumber(peer.socket())); }), ESRCH);
}

} // namespace
} // namespace klarbox::test
