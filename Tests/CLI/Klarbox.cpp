#include "Tests/CLI/Klarbox.hpp"

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace klarbox::test {

namespace {

int exitCode(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Appends what can be read; false at the end (a terminal whose other side is gone says EIO).
bool readSome(int fd, std::string &text) {
    std::array<char, 65536> buffer{};
    const auto count = ::read(fd, buffer.data(), buffer.size());
    if (count > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count > 0;
}

[[noreturn]] void execute(const std::vector<std::string> &arguments, const std::string &home) {
    ::setenv("HOME", home.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
    ::unsetenv("NO_COLOR");
    ::setenv("TERM", "xterm-256color", 1);
    std::string program = KLARBOX_PROGRAM;
    std::vector<std::string> copies = arguments;
    std::vector<char *> argv{program.data()};
    for (auto &argument : copies) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
}

} // namespace

KlarboxRun runKlarbox(const std::vector<std::string> &arguments,
                      const std::function<void(int)> &whileRunning) {
    const TemporaryTree home;
    std::array<std::array<int, 2>, 2> pipes{};
    for (auto &ends : pipes) {
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
        ::dup2(pipes[0][1], STDOUT_FILENO);
        ::dup2(pipes[1][1], STDERR_FILENO);
        execute(arguments, home.root().path());
    }
    std::array<UniqueFD, 2> readers{UniqueFD(pipes[0][0]), UniqueFD(pipes[1][0])};
    ::close(pipes[0][1]);
    ::close(pipes[1][1]);
    if (whileRunning) {
        whileRunning(child);
    }
    KlarboxRun run{.exitCode = 0, .output = {}, .error = {}};
    std::array<pollfd, 2> waiting{{{readers[0].get(), POLLIN, 0}, {readers[1].get(), POLLIN, 0}}};
    while (waiting[0].fd >= 0 || waiting[1].fd >= 0) {
        ::poll(waiting.data(), waiting.size(), -1);
        for (std::size_t i = 0; i < waiting.size(); ++i) {
            if (waiting[i].revents != 0 &&
                !readSome(waiting[i].fd, i == 0 ? run.output : run.error)) {
                waiting[i].fd = -1;
            }
        }
    }
    run.exitCode = exitCode(child);
    return run;
}

KlarboxRun runKlarboxOnTerminal(const std::vector<std::string> &arguments, const std::string &input,
                                unsigned short columns) {
    const TemporaryTree home;
    int terminal = -1;
    winsize size{};
    size.ws_row = 25;
    size.ws_col = columns;
    const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "forkpty");
    }
    if (child == 0) {
        execute(arguments, home.root().path());
    }
    const UniqueFD owner(terminal);
    if (::write(terminal, input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
        throw std::system_error(errno, std::generic_category(), "typing");
    }
    KlarboxRun run{.exitCode = 0, .output = {}, .error = {}};
    while (readSome(terminal, run.output)) {
    }
    run.exitCode = exitCode(child);
    return run;
}

std::vector<std::string> TemporaryDemoWorld::arguments(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(),
                     {"--home", world.home().path(), "--disk", world.disk().path(), "--settings",
                      world.settings().path(), "--environment", world.environment().path()});
    return arguments;
}

std::vector<std::string> itemIDs(const nlohmann::json &document, const std::string &prefix) {
    std::vector<std::string> identifiers;
    for (const auto &category : document.at("categories")) {
        for (const auto &item : category.at("items")) {
            auto id = item.at("id").get<std::string>();
            if (const auto at = id.find(prefix); !prefix.empty() && at != std::string::npos) {
                id.erase(at, prefix.size());
            }
            identifiers.push_back(id);
        }
    }
    return identifiers;
}

} // namespace klarbox::test
