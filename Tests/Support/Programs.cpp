#include "Tests/Support/Programs.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace klarbox::test {

namespace {

/// Opens a pipe and returns its ends for reading and for writing.
std::array<UniqueFD, 2> openPipe() {
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    return {UniqueFD(ends[0]), UniqueFD(ends[1])};
}

std::string readAll(const UniqueFD &fd) {
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t got = 0;
    while ((got = ::read(fd.get(), buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
    std::vector<char *> found;
    for (const auto &text : texts) {
        found.push_back(const_cast<char *>(text.c_str()));
    }
    found.push_back(nullptr);
    return found;
}

} // namespace

Running::Running(const Launch &launch) {
    auto arguments = launch.arguments;
    if (launch.user || launch.effectiveGroup) {
        const auto id = std::to_string(launch.user.value_or(0));
        const auto group = std::to_string(launch.effectiveGroup.value_or(launch.user.value_or(0)));
        const auto prefix = words("/usr/bin/setpriv --reuid " + id + " --rgid " + id + " --egid " +
                                  group + " --clear-groups --");
        arguments.insert(arguments.begin(), prefix.begin(), prefix.end());
    }
    std::vector<std::string> environment{"PATH=/usr/sbin:/usr/bin:/bin", "LC_ALL=C.UTF-8"};
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char *value = std::getenv(name)) {
            environment.push_back(std::string(name) + "=" + value);
        }
    }
    environment.insert(environment.end(), launch.environment.begin(), launch.environment.end());

    auto [in, input] = openPipe();
    auto [output, out] = openPipe();
    auto [error, err] = openPipe();
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    int stream = 0;
    for (const auto *theirs : {&in, &out, &err}) {
        const int fd = launch.terminal >= 0 ? launch.terminal : theirs->get();
        ::posix_spawn_file_actions_adddup2(&actions, fd, stream++);
    }
    errno = ::posix_spawn(&pid_, arguments[0].c_str(), &actions, nullptr,
                          pointers(arguments).data(), pointers(environment).data());
    ::posix_spawn_file_actions_destroy(&actions);
    check(errno == 0, arguments[0]);
    input_ = std::move(input);
    output_ = std::move(output);
    error_ = std::move(error);
}

Running::~Running() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void Running::signal(int number) const {
    ::kill(pid_, number);
}

std::string Running::readLine() {
    std::string line;
    char c = 0;
    while (::read(output_.get(), &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

void Running::writeLine(const std::string &line) const {
    const auto text = line + "\n";
    check(::write(input_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          "write");
}

Outcome Running::finish() {
    input_.reset();
    Outcome outcome{};
    // One after the other is enough: nothing started here fills a pipe with errors.
    outcome.out = readAll(output_);
    outcome.err = readAll(error_);
    int status = 0;
    check(::waitpid(std::exchange(pid_, -1), &status, 0) > 0, "waitpid");
    outcome.exitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return outcome;
}

Outcome run(const Launch &launch) {
    return Running(launch).finish();
}

Outcome shell(const std::string &command) {
    return run({.arguments = {"/bin/sh", "-c", "exec 2>&1\n" + command}});
}

} // namespace klarbox::test
