// A client of the helper that shares no code with it: what anyone could write who knows the
// packets. It does what a well-behaved client does, and what a hostile one would.
//
// usage: packet-client MODE [ARGUMENT…]; "%00" in an argument stands for a NUL.
// Exits 0 when it was served, 3 when the helper ended the connection, 1 when anything else failed.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
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

bool sent(int fd, std::string_view bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
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

/// A packet with a descriptor attached.
bool sentWithAttachment(int fd, std::string_view bytes, int attachment) {
    iovec data{const_cast<char *>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof attachment)]{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    auto *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof attachment);
    std::memcpy(CMSG_DATA(header), &attachment, sizeof attachment);
    return ::sendmsg(fd, &message, MSG_NOSIGNAL) >= 0;
}

/// Sends what is no message, or not the way messages are sent.
void misbehave(int fd, std::string_view how) {
    if (how == "garbage") {
        std::string noise(1000, '\0');
        for (std::size_t i = 0; i < noise.size(); ++i) {
            noise[i] = static_cast<char>(i * 37 + 11);
        }
        sent(fd, noise);
    } else if (how == "oversized") {
        sent(fd, packet(removeItem, "/" + std::string(4096, 'a')));
    } else if (how == "attachment") {
        sentWithAttachment(fd, packet(removeItem, "/Library/Caches/none"), fd);
    } else if (how == "vanish") {
        sent(fd, packet(removeItem, "/Library/Caches/none"));
        ::shutdown(fd, SHUT_RDWR);
    } else if (how == "empty") {
        sent(fd, "");
    } else if (how == "selector") {
        sent(fd, packet("removeEverything:withReply:", "/Library/Caches/none"));
    } else if (how == "unended") {
        sent(fd, removeItem);
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
    sentWithAttachment(fd, "welcome", executable);
    received(fd, told);
    std::printf("%zu\n", told.size());
    return served;
}

/// Many clients side by side, each removing files of its own and checking every answer.
int stress(const std::vector<std::string> &arguments) {
    const int clients = std::atoi(arguments[0].c_str());
    const int requests = std::atoi(arguments[1].c_str());
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int client = 0; client < clients; ++client) {
        threads.emplace_back([&, client] {
            const int fd = connected();
            for (int request = 0; request < requests; ++request) {
                const auto path =
                    arguments[2] + "/" + std::to_string(client) + "-" + std::to_string(request);
                makeFile(path);
                std::string reply;
                if (sent(fd, packet(removeItem, path)) && received(fd, reply) &&
                    reply == R"({"removedCount":1,"failedCount":0,"bytes":4096})" &&
                    ::access(path.c_str(), F_OK) != 0) {
                    ++good;
                }
            }
            // An answer too many would still be on its way.
            std::string reply(16, '\0');
            if (::recv(fd, reply.data(), reply.size(), MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
                good -= requests;
            }
            ::close(fd);
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    std::printf("%d\n", good.load());
    return good == clients * requests ? served : failed;
}

/// Removes small files one by one on one connection, or asks for what is refused when their folder
/// is outside the helper's; prints the median and the longest round trip in microseconds.
int latency(const std::vector<std::string> &arguments) {
    const int fd = connected();
    const bool isServed = arguments[1].starts_with("/Library/");
    std::vector<long> times;
    for (int i = 0; i < std::atoi(arguments[0].c_str()) + 1; ++i) {
        const auto path = arguments[1] + "/latency-" + std::to_string(i);
        makeFile(path);
        std::string reply;
        const auto begin = std::chrono::steady_clock::now();
        if (!sent(fd, packet(removeItem, path)) || !received(fd, reply)) {
            return refused;
        }
        const auto taken = std::chrono::steady_clock::now() - begin;
        if ((::access(path.c_str(), F_OK) != 0) != isServed) {
            return failed;
        }
        if (i > 0) {
            times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(taken).count());
        }
        std::this_thread::sleep_for(
            std::chrono::milliseconds(arguments.size() > 2 ? std::atoi(arguments[2].c_str()) : 0));
    }
    std::ranges::sort(times);
    std::printf("%ld %ld\n", times[times.size() / 2], times.back());
    return served;
}

/// Removes the same path over and over until the input is closed.
int repeat(const std::vector<std::string> &arguments) {
    const int fd = connected();
    ::fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
    char byte = 0;
    long count = 0;
    std::string reply;
    while (::read(STDIN_FILENO, &byte, 1) != 0) {
        if (!sent(fd, packet(arguments[0], arguments[1])) || !received(fd, reply)) {
            return refused;
        }
        ++count;
    }
    std::printf("%ld\n", count);
    return served;
}

/// The process that connected ends at once; a child that kept the connection goes on.
int orphan(const std::vector<std::string> &arguments) {
    int exitCode[2];
    if (::pipe(exitCode) != 0) {
        return failed;
    }
    const pid_t grandparent = ::fork();
    if (grandparent == 0) {
        const int fd = connected();
        if (::fork() != 0) {
            ::_exit(0);
        }
        sent(fd, packet(removeItem, arguments[0]));
        const char outcome = static_cast<char>(printReply(fd));
        ::_exit(::write(exitCode[1], &outcome, 1) == 1 ? 0 : 1);
    }
    ::waitpid(grandparent, nullptr, 0);
    char outcome = 0;
    return ::read(exitCode[0], &outcome, 1) == 1 ? outcome : failed;
}

/// A verified process hands its connection to a child, which was not looked at.
int child(const std::vector<std::string> &arguments) {
    const int fd = connected();
    const pid_t pid = ::fork();
    if (pid == 0) {
        sent(fd, packet(removeItem, arguments[0]));
        const int outcome = printReply(fd);
        std::fflush(stdout);
        ::_exit(outcome);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WEXITSTATUS(status);
}

/// Connects, asks, and becomes another program before anyone looks; a child that kept the
/// connection sees whether that was believed.
int disguise(const std::vector<std::string> &arguments) {
    int ready[2];
    if (::pipe(ready) != 0) {
        return failed;
    }
    const pid_t disguised = ::fork();
    if (disguised == 0) {
        const int fd = connected(0);
        sent(fd, packet(removeItem, arguments[0]));
        if (::fork() == 0) {
            const char outcome = static_cast<char>(printReply(fd));
            std::fflush(stdout);
            ::_exit(::write(ready[1], &outcome, 1) == 1 ? 0 : 1);
        }
        ::close(ready[1]);
        ::execl(arguments[1].c_str(), arguments[1].c_str(), "wait", nullptr);
        ::_exit(failed);
    }
    ::close(ready[1]);
    char outcome = failed;
    const bool told = ::read(ready[0], &outcome, 1) == 1;
    ::kill(disguised, SIGKILL);
    ::waitpid(disguised, nullptr, 0);
    return told ? outcome : failed;
}

} // namespace

int main(int argc, char **argv) {
    const std::map<std::string_view, std::function<int(const std::vector<std::string> &)>> modes{
        {"ask", ask},       {"raw", raw},           {"hostile", hostile},  {"silent", silent},
        {"stress", stress}, {"latency", latency},   {"repeat", repeat},    {"orphan", orphan},
        {"child", child},   {"disguise", disguise}, {"impostor", impostor}};
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
    arguments.resize(std::max<std::size_t>(arguments.size(), 1));
    return mode->second(arguments);
}
