// A client of the helper that shares no code with it: what anyone could write who knows the
// packets. It does what a well-behaved client does, and what a hostile one would.
//
// usage: packet-client MODE [ARGUMENT…]; "%00" in a path stands for a NUL.
// Exits 0 when it was served, 3 when the helper ended the connection, 1 when anything else failed.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <linux/sched.h>
#include <map>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int served = 0;
constexpr int failed = 1;
constexpr int refused = 3;
constexpr int unsupported = 77;
/// Where a connection lies for the program that a program becomes.
constexpr int passedOn = 9;

/// Declares this program to be a client, which is told when it may begin. Some tests take the
/// declaration out again before they sign a copy.
[[gnu::section("__xpc_client"), gnu::used, gnu::retain]] const char clientRules[] = "1";

const std::string removeItem = "removeItemAtPath:withReply:";

const sockaddr_un service{.sun_family = AF_UNIX,
                          .sun_path = "/run/klarbox/app.klarbox.Klarbox.SystemHelper.sock"};
const auto *const address = reinterpret_cast<const sockaddr *>(&service);

int connected() {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, address, sizeof service) != 0) {
        std::perror("packet-client: connect");
        std::exit(failed);
    }
    return fd;
}

std::string packet(const std::string &selector, std::string path) {
    if (const auto at = path.find("%00"); at != std::string::npos) {
        path.replace(at, 3, 1, '\0');
    }
    return selector + '\0' + path;
}

/// Sends one packet, with a descriptor attached if one is given.
bool sent(int fd, std::string_view bytes, int attachment = -1) {
    iovec data{const_cast<char *>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof attachment)]{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (attachment >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        auto *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof attachment);
        std::memcpy(CMSG_DATA(header), &attachment, sizeof attachment);
    }
    return ::sendmsg(fd, &message, MSG_NOSIGNAL) >= 0;
}

/// The next packet; false when the helper ended the connection.
bool received(int fd, std::string &bytes) {
    bytes.resize(65536);
    const auto got = ::recv(fd, bytes.data(), bytes.size(), 0);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return got > 0;
}

/// Waits until the helper has verified this program.
bool letIn(int fd) {
    std::string told;
    return received(fd, told) && told == "welcome";
}

void say(const std::string &line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

/// A welcome that nobody waited for is no reply.
int printReply(int fd) {
    std::string reply;
    if (!received(fd, reply) || (reply == "welcome" && !received(fd, reply))) {
        return refused;
    }
    say(reply);
    return served;
}

/// Asks for what selectors and paths in turn say.
int askOn(int fd, char **arguments) {
    int outcome = served;
    for (; *arguments != nullptr && outcome == served; arguments += 2) {
        sent(fd, packet(arguments[0], arguments[1]));
        outcome = printReply(fd);
    }
    return outcome;
}

int ask(char **arguments) {
    const int fd = connected();
    return letIn(fd) ? askOn(fd, arguments) : refused;
}

/// Asks as a program does that does not declare itself and so is told nothing: so many milliseconds
/// after it connected.
int askLater(char **arguments) {
    const int fd = connected();
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(arguments[0])));
    return askOn(fd, arguments + 1);
}

const std::string question = packet(removeItem, "/Library/Caches/none");

/// What is no message, or not the way messages are sent.
using Misbehaviour = std::pair<std::string_view, std::string>;
const Misbehaviour misbehaviours[] = {
    {"silent", ""},
    {"garbage", std::string(1000, '\xe5') + packet("\x7f", "\x01")},
    {"oversized", packet(removeItem, "/" + std::string(4096, 'a'))},
    {"empty", ""},
    {"attachment", question},
    {"vanish", question},
    {"selector", packet("removeEverything:withReply:", "/Library/Caches/none")},
    {"unended", removeItem},
};

void misbehave(int fd, const Misbehaviour &misbehaviour) {
    const auto &[how, bytes] = misbehaviour;
    if (how != "silent") {
        sent(fd, bytes, how == "attachment" ? fd : -1);
    }
    if (how == "vanish") {
        ::shutdown(fd, SHUT_RDWR);
    }
}

/// Misbehaves once and sees what becomes of the connection.
int raw(char **arguments) {
    const auto *found = std::ranges::find(misbehaviours, arguments[0], &Misbehaviour::first);
    const int fd = connected();
    if (found == std::end(misbehaviours) || !letIn(fd)) {
        return failed;
    }
    misbehave(fd, *found);
    return printReply(fd);
}

/// Misbehaves in every way in turn, before it is let in and after, without ever waiting for what
/// comes of it.
int hostile(char **arguments) {
    constexpr auto ways = std::size(misbehaviours);
    const auto count = static_cast<std::size_t>(std::atoi(arguments[0]));
    for (std::size_t i = 0; i < count; ++i) {
        const int fd = connected();
        if (i / ways % 2 == 1) {
            letIn(fd);
        }
        misbehave(fd, misbehaviours[i % ways]);
        ::close(fd);
    }
    return served;
}

/// Connects so many times, and says nothing until it is told to end (its input is closed).
int silent(char **arguments) {
    for (int i = std::atoi(arguments[0]); i > 0; --i) {
        connected();
    }
    say("connected");
    while (std::getchar() != EOF) {
    }
    return served;
}

/// Stands in the helper's place: welcomes whoever connects as the helper does, with any file as the
/// executable that it claims to run, and prints how much it was told then. Replies after so many
/// seconds, itself, through a child, or as another user; or waits until the client hangs up.
int impostor(char **arguments) {
    const int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const int executable = ::open(arguments[0], O_RDONLY | O_CLOEXEC);
    ::unlink(service.sun_path);
    if (executable < 0 || ::bind(listener, address, sizeof service) != 0 ||
        ::chmod(service.sun_path, 0666) != 0 || ::listen(listener, 8) != 0) {
        std::perror("packet-client: impostor");
        return failed;
    }
    say("listening");
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::string told;
    sent(fd, "welcome", executable);
    const bool isAsked = received(fd, told);
    say(std::to_string(told.size()));
    if (!isAsked) {
        return served;
    }
    if (arguments[1] == nullptr) {
        const timeval patience{.tv_sec = 20, .tv_usec = 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        say(::recv(fd, told.data(), told.size(), 0) == 0 ? "hung up" : "still there");
        return served;
    }
    const std::string_view replier = arguments[1];
    std::this_thread::sleep_for(
        std::chrono::seconds(arguments[2] == nullptr ? 0 : std::atoi(arguments[2])));
    if (replier == "child" && ::fork() != 0) {
        return ::wait(nullptr) > 0 ? served : failed;
    }
    if (const auto user = static_cast<uid_t>(std::atoi(arguments[1]));
        user != 0 && ::setresuid(user, user, user) != 0) {
        return failed;
    }
    return sent(fd, R"({"removedCount":1,"failedCount":0,"bytes":4096})") ? served : failed;
}

/// Removes small files of its own one by one on one connection, or asks for what is refused when
/// their folder is outside the helper's, with a pause after each; checks every answer and prints
/// the median and the longest round trip in microseconds, the first one left out.
int series(char **arguments) {
    const int fd = connected();
    if (!letIn(fd)) {
        return refused;
    }
    const std::string folder = arguments[1];
    const bool isServed = folder.starts_with("/Library/");
    const std::string expected =
        isServed ? R"({"removedCount":1,"failedCount":0,"bytes":4096})"
                 : R"({"removedCount":0,"failedCount":1,"bytes":0,"refusal":"notInsideRoot"})";
    std::vector<long> times;
    std::string reply;
    for (int i = 0; i <= std::atoi(arguments[0]); ++i) {
        const auto path = folder + "/" + std::to_string(::getpid()) + "-" + std::to_string(i);
        std::ofstream(path) << "x";
        const auto begin = std::chrono::steady_clock::now();
        if (!sent(fd, packet(removeItem, path)) || !received(fd, reply)) {
            return refused;
        }
        const auto taken = std::chrono::steady_clock::now() - begin;
        if (reply != expected || (::access(path.c_str(), F_OK) != 0) != isServed) {
            return failed;
        }
        times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(taken).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(arguments[2])));
    }
    // An answer too many would still be on its way.
    if (::recv(fd, reply.data(), reply.size(), MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
        return failed;
    }
    std::sort(times.begin() + 1, times.end());
    std::printf("%ld %ld\n", times[times.size() / 2], times.back());
    return served;
}

/// Runs in a child process, of a certain number if one is given, which reports what it got by its
/// exit code.
template <typename Body>
pid_t inChild(const Body &body, const pid_t *number = nullptr) {
    clone_args wanted{};
    wanted.exit_signal = SIGCHLD;
    wanted.set_tid = reinterpret_cast<std::uintptr_t>(number);
    wanted.set_tid_size = number == nullptr ? 0 : 1;
    const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &wanted, sizeof wanted));
    if (child == 0) {
        ::_exit(body());
    }
    return child;
}

int exitCode(pid_t child) {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status)
                                                                      : failed;
}

/// A verified process passes its connection to another, which asks: to a child while it stays, or
/// once it ended; or, then, to one that got its number.
int heir(char **arguments) {
    const std::string_view when = arguments[0];
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const auto ask = [&] { return askOn(fd, arguments + 1); };
    const pid_t verified = inChild([&] {
        const bool isIn = ::connect(fd, address, sizeof service) == 0 && letIn(fd);
        return !isIn ? failed : when == "staying" ? exitCode(inChild(ask)) : served;
    });
    const int outcome = exitCode(verified);
    if (outcome != served || when == "staying") {
        return outcome;
    }
    const pid_t asking = when == "recycled" ? inChild(ask, &verified) : inChild(ask);
    return asking < 0 ? unsupported : exitCode(asking);
}

int become(char **program) {
    ::execv(program[0], program);
    std::perror("packet-client: execv");
    return failed;
}

/// Becomes another program, with a connection on which it asks for a path before: at once, having
/// asked, once it was let in, or once it was answered; or with one that another program left
/// behind.
int turns(char **arguments) {
    const std::string_view when = arguments[0];
    const int fd = when == "inheriting" ? passedOn : ::dup2(connected(), passedOn);
    const bool isToBeLetIn = when == "welcome" || when == "answered";
    if (isToBeLetIn && !letIn(fd)) {
        return failed;
    }
    if (when == "asking" || when == "inheriting") {
        sent(fd, packet(removeItem, arguments[1]));
    }
    if (when == "answered" && (!sent(fd, question) || printReply(fd) != served)) {
        return failed;
    }
    return become(arguments + 2);
}

/// Goes on with a connection that another program left behind.
int continues(char **arguments) {
    return askOn(passedOn, arguments);
}

/// Waits for a reply on such a connection.
int reply(char ** /*arguments*/) {
    return printReply(passedOn);
}

} // namespace

int main(int argc, char **argv) {
    const std::map<std::string_view, int (*)(char **)> modes{
        {"ask", ask},         {"ask-later", askLater},  {"raw", raw},
        {"hostile", hostile}, {"silent", silent},       {"series", series},
        {"heir", heir},       {"impostor", impostor},   {"turns", turns},
        {"reply", reply},     {"continues", continues},
    };
    const auto mode = argc > 1 ? modes.find(argv[1]) : modes.end();
    if (mode == modes.end()) {
        std::fputs("usage: packet-client MODE [ARGUMENT…]\n", stderr);
        return 2;
    }
    return mode->second(argv + 2);
}
