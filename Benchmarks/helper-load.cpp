// Processor time that the helper takes for one small file over a connection that is kept, beside a
// server that does nothing but unlink what it is told; and for a new connection, beside hashing the
// executable that it has to verify. For use in a world of its own (see Benchmarks/run), as root.
//
// usage: helper-load HELPER REQUESTS CONNECTIONS ROUNDS
// Prints a JSON object of lists, a value for each round, in nanoseconds for one.

#include "KlarboxKit/Helper/HelperIdentity.hpp"
#include "KlarboxKit/Helper/KlarboxHelperXPC.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/XPC.hpp"
#include "KlarboxKit/Platform/XPCConnection.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

namespace {

using namespace klarbox;

const std::string folder = "/Library/Caches";

void check(bool holds, const char *what) {
    if (!holds) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// Processor time of a whole process so far.
std::int64_t nanoseconds(clockid_t clock) {
    timespec time{};
    check(::clock_gettime(clock, &time) == 0, "clock");
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

std::int64_t processorTime(const std::vector<pid_t> &processes) {
    std::int64_t sum = 0;
    for (const auto pid : processes) {
        clockid_t clock{};
        check(::clock_getcpuclockid(pid, &clock) == 0, "clock of a process");
        sum += nanoseconds(clock);
    }
    return sum;
}

std::vector<std::string> makeFiles(long count) {
    std::vector<std::string> paths;
    for (long i = 0; i < count; ++i) {
        paths.push_back(folder + "/file-" + std::to_string(i));
        std::ofstream(paths.back()) << 'x';
    }
    return paths;
}

/// Takes whatever programs say to the system's journal.
std::jthread startJournal() {
    std::filesystem::create_directories("/run/systemd/journal");
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/systemd/journal/socket"};
    const timeval patience{.tv_sec = 0, .tv_usec = 20'000};
    check(::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) == 0 &&
              ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
          "journal");
    return std::jthread([fd](const std::stop_token &stop) {
        std::array<char, 65536> packet{};
        while (!stop.stop_requested()) {
            static_cast<void>(::recv(fd, packet.data(), packet.size(), 0));
        }
    });
}

pid_t start(const char *program) {
    pid_t pid = -1;
    std::array arguments{const_cast<char *>(program), static_cast<char *>(nullptr)};
    errno = ::posix_spawn(&pid, program, nullptr, nullptr, arguments.data(), environ);
    check(errno == 0, program);
    return pid;
}

/// The helper, once it serves, and its process that verifies peers.
std::vector<pid_t> startHelper(const char *program, const XPCConnection::Service &service) {
    const auto pid = start(program);
    for (int tries = 0; !FileManager::exists(service.socket); ++tries) {
        check(tries < 1000, "the helper does not serve");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const XPCConnection connection(service);
    std::ifstream children("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) +
                           "/children");
    std::vector<pid_t> processes{pid};
    for (pid_t child = 0; children >> child;) {
        processes.push_back(child);
    }
    return processes;
}

/// Unlinks each path it is sent and answers with as many bytes as the helper would.
[[noreturn]] void unlinkWhatComes(int socket) {
    std::array<char, XPC::maximumMessageSize + 1> packet{};
    constexpr std::string_view reply = R"({"removedCount":1,"failedCount":0,"bytes":4096})";
    for (;;) {
        const auto got = ::recv(socket, packet.data(), packet.size() - 1, 0);
        if (got <= 0) {
            ::_exit(EXIT_SUCCESS);
        }
        packet.at(static_cast<std::size_t>(got)) = '\0';
        if (::unlink(packet.data()) != 0 || ::send(socket, reply.data(), reply.size(), 0) < 0) {
            ::_exit(EXIT_FAILURE);
        }
    }
}

std::int64_t requestsToHelper(const std::vector<pid_t> &helper, XPCConnection &connection,
                              long count) {
    const auto paths = makeFiles(count);
    const auto before = processorTime(helper);
    for (const auto &path : paths) {
        connection.send(KlarboxHelperXPC::removeItemSelector, path);
    }
    const auto taken = processorTime(helper) - before;
    check(std::filesystem::is_empty(folder), "the helper removed not all");
    return taken / count;
}

std::int64_t requestsToBareServer(pid_t server, int socket, long count) {
    const auto paths = makeFiles(count);
    const auto before = processorTime({server});
    std::array<char, 4096> reply{};
    for (const auto &path : paths) {
        check(::send(socket, path.data(), path.size(), 0) > 0 &&
                  ::recv(socket, reply.data(), reply.size(), 0) > 0,
              "bare server");
    }
    const auto taken = processorTime({server}) - before;
    check(std::filesystem::is_empty(folder), "the bare server removed not all");
    return taken / count;
}

std::int64_t newConnections(const std::vector<pid_t> &helper, const XPCConnection::Service &service,
                            long count) {
    const auto before = processorTime(helper);
    for (long i = 0; i < count; ++i) {
        const XPCConnection connection(service);
    }
    return (processorTime(helper) - before) / count;
}

/// One pass over this program's own executable, as whoever verifies it has to make.
std::int64_t hashing(long count) {
    const auto before = nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    std::vector<char> piece(std::size_t{256} << 10);
    for (long i = 0; i < count; ++i) {
        std::ifstream executable("/proc/self/exe", std::ios::binary);
        auto *context = EVP_MD_CTX_new();
        EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
        while (executable.read(piece.data(), static_cast<std::streamsize>(piece.size())) ||
               executable.gcount() > 0) {
            EVP_DigestUpdate(context, piece.data(), static_cast<std::size_t>(executable.gcount()));
        }
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        EVP_DigestFinal_ex(context, digest.data(), nullptr);
        EVP_MD_CTX_free(context);
    }
    return (nanoseconds(CLOCK_THREAD_CPUTIME_ID) - before) / count;
}

void measure(const char *program, long requests, long connections, long rounds) {
    const auto journal = startJournal();
    std::array<int, 2> ends{};
    check(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
    const auto bareServer = ::fork();
    if (bareServer == 0) {
        ::close(ends[0]);
        unlinkWhatComes(ends[1]);
    }
    ::close(ends[1]);
    const XPCConnection::Service service{.socket =
                                             XPC::serviceSocket(HelperIdentity::machServiceName),
                                         .requirement = HelperIdentity::helperRequirement()};
    const auto helper = startHelper(program, service);
    XPCConnection kept(service);
    nlohmann::ordered_json found;
    for (long round = 0; round < rounds; ++round) {
        found["request"].push_back(requestsToHelper(helper, kept, requests));
        found["bare unlink"].push_back(requestsToBareServer(bareServer, ends[0], requests));
        found["connection"].push_back(newConnections(helper, service, connections));
        found["SHA-256"].push_back(hashing(connections));
    }
    ::close(ends[0]);
    ::waitpid(bareServer, nullptr, 0);
    ::kill(helper.front(), SIGTERM);
    ::waitpid(helper.front(), nullptr, 0);
    std::cout << found << '\n';
}

} // namespace

int main(int argc, char **argv) {
    try {
        if (argc != 5) {
            std::cerr << "usage: helper-load HELPER REQUESTS CONNECTIONS ROUNDS\n";
            return 2;
        }
        measure(argv[1], std::atol(argv[2]), std::atol(argv[3]), std::atol(argv[4]));
        return 0;
    } catch (const std::exception &error) {
        std::cerr << "helper-load: " << error.what() << '\n';
        return 1;
    }
}
