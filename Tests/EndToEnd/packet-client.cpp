// A client of the helper that shares no code with it: what anyone could write who knows the
// packets. It does what a well-behaved client does, and what a hostile one would.
//
// usage: packet-client MODE [ARGUMENT…]; "%00" in an argument stands for a NUL.
// Exits 0 when it was served, 3 when the helper ended the connection, 1 when anything else failed.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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
#include <vector>

namespace {

constexpr const char *socketPath = "/run/klarbox/app.klarbox.Klarbox.SystemHelper.sock";
constexpr int served = 0;
constexpr int failed = 1;
constexpr int refused = 3;
constexpr int unsupported = 77;

/// Declares this program to be a client, which is told when it may begin. Some tests take the
/// declaration out again before they sign a copy.
[[gnu::section("__xpc_client"), gnu::used, gnu::retain]] const char clientRules[] = "1";

const std::string removeItem = "removeItemAtPath:withReply:";

sockaddr_un serviceAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath, sizeof address.sun_path - 1);
    return address;
}

int connected(int flags = SOCK_CLOEXEC) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | flags, 0);
    const auto address = serviceAddress();
    if (fd < 0 ||
        ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        std::perror("packet-client: connect");
        std::exit(failed);
    }
    return fd;
}

std::string packet(std::string_view selector, std::string_view path) {
    return std::string(selector) + '\0' + std::string(path);
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

int printReply(int fd) {
    std::string reply;
    if (!received(fd, reply)) {
        return refused;
    }
    std::puts(reply.c_str());
    return served;
}

void makeFile(const std::string &path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, "x", 1) != 1 || ::close(fd) != 0) {
        std::perror("packet-client: file");
        std::exit(failed);
    }
}

int askOn(int fd, const std::vector<std::string> &arguments) {
    for (std::size_t i = 0; i + 1 < arguments.size(); i += 2) {
        if (!sent(fd, packet(arguments[i], arguments[i + 1]))) {
            return refused;
        }
        if (const int outcome = printReply(fd); outcome != served) {
            return outcome;
        }
    }
    return served;
}

int ask(const std::vector<std::string> &arguments) {
    const int fd = connected();
    return letIn(fd) ? askOn(fd, arguments) : refused;
}

/// Asks as a program does that does not declare itself and so is told nothing: some time after it
/// connected. The time comes first.
int askLater(const std::vector<std::string> &arguments) {
    const int fd = connected();
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(arguments[0].c_str())));
    return askOn(fd, {arguments.begin() + 1, arguments.end()});
}

/// Sends what is no message, or not the way messages are sent; nothing if that is unknown.
void misbehave(int fd, std::string_view how) {
    static const auto question = packet(removeItem, "/Library/Caches/none");
    static const std::map<std::string_view, std::string> packets{
        {"garbage", std::string(1000, '\xe5') + packet("\x7f", "\x01")},
        {"oversized", packet(removeItem, "/" + std::string(4096, 'a'))},
        {"attachment", question},
        {"vanish", question},
        {"empty", ""},
        {"selector", packet("removeEverything:withReply:", "/Library/Caches/none")},
        {"unended", removeItem},
    };
    if (const auto found = packets.find(how); found != packets.end()) {
        sent(fd, found->second, how == "attachment" ? fd : -1);
    }
    if (how == "vanish") {
        ::shutdown(fd, SHUT_RDWR);
    }
}

/// Misbehaves once and sees what becomes of the connection.
int raw(const std::vector<std::string> &arguments) {
    const int fd = connected();
    if (!letIn(fd)) {
        return failed;
    }
    misbehave(fd, arguments[0]);
    return printReply(fd);
}

/// Misbehaves in every way in turn, before it is let in and after, without ever waiting for what
/// comes of it.
int hostile(const std::vector<std::string> &arguments) {
    constexpr std::array ways{"silent",     "garbage", "oversized", "empty",
                              "attachment", "vanish",  "selector",  "unended"};
    const auto count = static_cast<std::size_t>(std::atoi(arguments[0].c_str()));
    for (std::size_t i = 0; i < count; ++i) {
        const int fd = connected();
        if (i / ways.size() % 2 == 1) {
            letIn(fd);
        }
        misbehave(fd, ways[i % ways.size()]);
        ::close(fd);
    }
    return served;
}

/// Connects so many times, and says nothing until it is told to end (its input is closed).
int silent(const std::vector<std::string> &arguments) {
    for (int i = std::atoi(arguments[0].c_str()); i > 0; --i) {
        connected();
    }
    std::puts("connected");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return served;
}

/// Stands in the helper's place: welcomes whoever connects as the helper does, with any file as the
/// executable that it claims to run, and prints how much it was told then. Replies after so many
/// seconds, itself, through a child, or as another user; or waits until the client hangs up.
int impostor(const std::vector<std::string> &arguments) {
    const int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const auto address = serviceAddress();
    const int executable = ::open(arguments[0].c_str(), O_RDONLY | O_CLOEXEC);
    ::unlink(socketPath);
    if (executable < 0 ||
        ::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::chmod(socketPath, 0666) != 0 || ::listen(listener, 8) != 0) {
        std::perror("packet-client: impostor");
        return failed;
    }
    std::puts("listening");
    std::fflush(stdout);
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::string told;
    sent(fd, "welcome", executable);
    const bool isAsked = received(fd, told);
    std::printf("%zu\n", told.size());
    std::fflush(stdout);
    if (!isAsked) {
        return served;
    }
    const auto &replier = arguments[1];
    if (replier.empty()) {
        const timeval patience{.tv_sec = 20, .tv_usec = 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::puts(::recv(fd, told.data(), told.size(), 0) == 0 ? "hung up" : "still there");
        return served;
    }
    std::this_thread::sleep_for(std::chrono::seconds(std::atoi(arguments[2].c_str())));
    if (replier == "child" && ::fork() != 0) {
        return ::wait(nullptr) > 0 ? served : failed;
    }
    if (const auto user = static_cast<uid_t>(std::atoi(replier.c_str()));
        user != 0 && ::setresuid(user, user, user) != 0) {
        return failed;
    }
    return sent(fd, R"({"removedCount":1,"failedCount":0,"bytes":4096})") ? served : failed;
}

/// Removes small files of its own one by one on one connection, or asks for what is refused when
/// their folder is outside the helper's, with a pause after each; checks every answer and prints
/// the median and the longest round trip in microseconds.
int series(const std::vector<std::string> &arguments) {
    const int fd = connected();
    if (!letIn(fd)) {
        return refused;
    }
    const bool isServed = arguments[1].starts_with("/Library/");
    const std::string expected =
        isServed ? R"({"removedCount":1,"failedCount":0,"bytes":4096})"
                 : R"({"removedCount":0,"failedCount":1,"bytes":0,"refusal":"notInsideRoot"})";
    std::vector<long> times;
    std::string reply;
    for (int i = 0; i < std::atoi(arguments[0].c_str()) + 1; ++i) {
        const auto path = arguments[1] + "/" + std::to_string(::getpid()) + "-" + std::to_string(i);
        makeFile(path);
        const auto begin = std::chrono::steady_clock::now();
        if (!sent(fd, packet(removeItem, path)) || !received(fd, reply)) {
            return refused;
        }
        const auto taken = std::chrono::steady_clock::now() - begin;
        if (reply != expected || (::access(path.c_str(), F_OK) != 0) != isServed) {
            return failed;
        }
        if (i > 0) {
            times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(taken).count());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(arguments[2].c_str())));
    }
    // An answer too many would still be on its way.
    if (::recv(fd, reply.data(), reply.size(), MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
        return failed;
    }
    std::ranges::sort(times);
    std::printf("%ld %ld\n", times[times.size() / 2], times.back());
    return served;
}

/// Removes the same path over and over until the input is closed. Prints how often, and the most
/// entries and bytes that an answer told of.
int repeat(const std::vector<std::string> &arguments) {
    const int fd = connected();
    if (!letIn(fd)) {
        return refused;
    }
    ::fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
    char byte = 0;
    long count = 0;
    long mostEntries = 0;
    long mostBytes = 0;
    std::string reply;
    while (::read(STDIN_FILENO, &byte, 1) != 0) {
        if (!sent(fd, packet(arguments[0], arguments[1])) || !received(fd, reply)) {
            return refused;
        }
        long removed = 0;
        long kept = 0;
        long bytes = 0;
        if (std::sscanf(reply.c_str(), R"({"removedCount":%ld,"failedCount":%ld,"bytes":%ld)",
                        &removed, &kept, &bytes) != 3) {
            return failed;
        }
        ++count;
        mostEntries = std::max(mostEntries, removed + kept);
        mostBytes = std::max(mostBytes, bytes);
    }
    std::printf("%ld %ld %ld\n", count, mostEntries, mostBytes);
    return served;
}

/// Runs in a child process, which reports what it got by its exit code.
template <typename Body>
pid_t inChild(const Body &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        const int outcome = body();
        std::fflush(nullptr);
        ::_exit(outcome);
    }
    return child;
}

int exitCode(pid_t child) {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status)
                                                                      : failed;
}

/// A verified process passes its connection to a child of it, which asks. It stays, or ends first.
int child(const std::vector<std::string> &arguments) {
    const bool stays = arguments[0] == "stays";
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const auto address = serviceAddress();
    const pid_t verified = inChild([&] {
        const bool isIn =
            ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
            letIn(fd);
        if (!isIn || !stays) {
            return isIn ? served : failed;
        }
        return exitCode(inChild([&] { return askOn(fd, {removeItem, arguments[1]}); }));
    });
    const int outcome = exitCode(verified);
    return stays || outcome != served ? outcome : askOn(fd, {removeItem, arguments[1]});
}

/// The same, but the child gets the number of the process, which ended.
int recycled(const std::vector<std::string> &arguments) {
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const auto address = serviceAddress();
    const pid_t verified = inChild([&] {
        return ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                       letIn(fd)
                   ? served
                   : failed;
    });
    if (exitCode(verified) != served) {
        return failed;
    }
    clone_args wanted{};
    wanted.exit_signal = SIGCHLD;
    wanted.set_tid = reinterpret_cast<std::uintptr_t>(&verified);
    wanted.set_tid_size = 1;
    const auto heir = static_cast<pid_t>(::syscall(SYS_clone3, &wanted, sizeof wanted));
    if (heir == 0) {
        const bool isHeir = ::syscall(SYS_getpid) == verified;
        ::_exit(isHeir ? askOn(fd, {removeItem, arguments[0]}) : unsupported);
    }
    return heir < 0 ? unsupported : exitCode(heir);
}

void become(const std::string &program, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program);
    std::vector<char *> pointers;
    for (auto &argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    ::execv(program.c_str(), pointers.data());
    std::perror("packet-client: execv");
}

/// Connects and becomes another program, which goes on with the connection as the remaining
/// arguments say: at once, having asked, once it was let in, or once it was answered.
int turns(const std::vector<std::string> &arguments) {
    const int fd = connected(0);
    const auto &when = arguments[0];
    if (when == "asking") {
        sent(fd, packet(removeItem, arguments[1]));
    } else if (when != "silent" && !letIn(fd)) {
        return failed;
    }
    if (when == "answered" && askOn(fd, {removeItem, "/Library/Caches/none"}) != served) {
        return failed;
    }
    std::vector<std::string> rest(arguments.begin() + 3, arguments.end());
    rest.push_back(std::to_string(fd));
    rest.push_back(arguments[1]);
    become(arguments[2], rest);
    return failed;
}

/// Goes on with a connection that another program left behind.
int continues(const std::vector<std::string> &arguments) {
    return askOn(std::atoi(arguments[0].c_str()), {removeItem, arguments[1]});
}

/// The same, but the program it becomes then reads the reply.
int continuesAs(const std::vector<std::string> &arguments) {
    sent(std::atoi(arguments[1].c_str()), packet(removeItem, arguments[2]));
    become(arguments[0], {"reply", arguments[1]});
    return failed;
}

/// Waits for a reply on a connection that another program left behind.
int reply(const std::vector<std::string> &arguments) {
    return printReply(std::atoi(arguments[0].c_str()));
}

} // namespace

int main(int argc, char **argv) {
    const std::map<std::string_view, int (*)(const std::vector<std::string> &)> modes{
        {"ask", ask},
        {"raw", raw},
        {"hostile", hostile},
        {"silent", silent},
        {"series", series},
        {"repeat", repeat},
        {"child", child},
        {"impostor", impostor},
        {"recycled", recycled},
        {"turns", turns},
        {"continues", continues},
        {"continues-as", continuesAs},
        {"reply", reply},
        {"ask-later", askLater}};
    const auto mode = argc > 1 ? modes.find(argv[1]) : modes.end();
    if (mode == modes.end()) {
        std::fputs("usage: packet-client MODE [ARGUMENT…]\n", stderr);
        return 2;
    }
    std::vector<std::string> arguments(argv + 2, argv + argc);
    for (auto &argument : arguments) {
        for (auto at = argument.find("%00"); at != std::string::npos; at = argument.find("%00")) {
            argument.replace(at, 3, 1, '\0');
        }
    }
    arguments.resize(std::max<std::size_t>(arguments.size(), 3));
    return mode->second(arguments);
}
