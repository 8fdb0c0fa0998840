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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
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

int ask(const std::vector<std::string> &arguments) {
    const int fd = connected();
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
    misbehave(fd, arguments[0]);
    return printReply(fd);
}

/// Misbehaves in every way in turn, without ever waiting for what comes of it.
int hostile(const std::vector<std::string> &arguments) {
    constexpr std::array ways{"silent",     "garbage", "oversized", "empty",
                              "attachment", "vanish",  "selector",  "unended"};
    const auto count = static_cast<std::size_t>(std::atoi(arguments[0].c_str()));
    for (std::size_t i = 0; i < count; ++i) {
        const int fd = connected();
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
/// executable that it claims to run, and prints how much it was told then.
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
    received(fd, told);
    std::printf("%zu\n", told.size());
    return served;
}

/// Removes small files of its own one by one on one connection, or asks for what is refused when
/// their folder is outside the helper's, with a pause after each; checks every answer and prints
/// the median and the longest round trip in microseconds.
int series(const std::vector<std::string> &arguments) {
    const int fd = connected();
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

/// A process connects, and a child of it, which was not looked at, asks and reports what it got.
/// The process itself stays, ends, or, having asked, becomes another program before anyone looks.
int child(const std::vector<std::string> &arguments) {
    const auto &fate = arguments[0];
    const auto question = packet(removeItem, arguments[1]);
    int report[2];
    if (::pipe(report) != 0) {
        return failed;
    }
    const pid_t parent = ::fork();
    if (parent == 0) {
        const int fd = connected(0);
        if (fate == "becomes") {
            sent(fd, question);
        }
        if (::fork() == 0) {
            if (fate != "becomes") {
                sent(fd, question);
            }
            const char outcome = static_cast<char>(printReply(fd));
            ::_exit(::write(report[1], &outcome, 1) == 1 ? 0 : 1);
        }
        ::close(report[1]);
        if (fate == "becomes") {
            ::execl(arguments[2].c_str(), arguments[2].c_str(), "wait", nullptr);
        } else if (fate == "stays") {
            ::pause();
        }
        ::_exit(failed);
    }
    ::close(report[1]);
    char outcome = failed;
    const bool isTold = ::read(report[0], &outcome, 1) == 1;
    ::kill(parent, SIGKILL);
    ::waitpid(parent, nullptr, 0);
    return isTold ? outcome : failed;
}

} // namespace

int main(int argc, char **argv) {
    const std::map<std::string_view, int (*)(const std::vector<std::string> &)> modes{
        {"ask", ask},       {"raw", raw},       {"hostile", hostile}, {"silent", silent},
        {"series", series}, {"repeat", repeat}, {"child", child},     {"impostor", impostor}};
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
