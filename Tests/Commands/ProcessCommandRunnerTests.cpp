#include "KlarboxKit/Commands/ProcessCommandRunner.hpp"

#include "Tests/Support/MemoryEnds.hpp"
#include "Tests/Support/Programs.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::ExitedWithCode;
using testing::HasSubstr;

CommandAction script(std::string text) {
    return {FileURL("/bin/sh"), {"-c", std::move(text)}};
}

CommandAction scriptIn(const TemporaryTree &tree, const std::string &text) {
    return script("cd '" + tree.root().path() + "'; " + text);
}

CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout = 60s) {
    return ProcessCommandRunner().run(action, timeout);
}

bool appearsSoon(const FileURL &url) {
    return eventually([&] { return FileManager::exists(url); });
}

pid_t pidIn(const FileURL &file) {
    pid_t pid = -1;
    std::ifstream(file.path()) >> pid;
    return pid;
}

bool isReapedSoon(pid_t pid) {
    return pid > 0 && eventually([&] { return ::kill(pid, 0) != 0; });
}

std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator listing("/proc/self/fd");
    return std::distance(begin(listing), end(listing));
}

TEST(ProcessCommandRunner, returnsTheStatusAndEverythingWritten) {
    const std::pair<CommandAction, CommandResult> cases[] = {
        {script("echo a; echo b >&2; echo c"), {0, "a\nb\nc\n"}},
        {script("echo why; exit 3"), {3, "why\n"}},
        {script("exit 255"), {255, ""}},
        {script("printf 'a\\377b\\342\\202'"), {0, "a\uFFFDb\uFFFD"}},
        {script("cat; echo end"), {0, "end\n"}}, // standard input is empty, not ours
        {script("echo begun; kill -KILL $$"), {SIGKILL, "begun\n"}},
        {script("exec >&- 2>&-; exit 7"), {7, ""}}, // output closed long before the exit
        {script("head -c 10000000 /dev/zero | tr '\\0' x"), {0, std::string(10'000'000, 'x')}},
        {{FileURL("/usr/bin/printf"), {"%s|", "a b", "*", "", "$HOME"}}, {0, "a b|*||$HOME|"}},
    };
    for (const auto &[action, expected] : cases) {
        EXPECT_TRUE(run(action) == expected) << action.displayString();
    }
}

TEST(ProcessCommandRunner, saysWhichToolCouldNotBeStartedAndWhy) {
    const TemporaryTree tree{
        {"plain", text("#!/bin/sh\n"), std::nullopt, 0644},
        {"garbage", text("no program"), std::nullopt, 0755},
        {"folder", directory()},
    };
    const std::pair<const char *, const char *> cases[] = {
        {"missing", "No such file or directory"}, {"plain", "Permission denied"},
        {"garbage", "Exec format error"},         {"folder", "Permission denied"},
        {"plain/below", "Not a directory"},
    };
    for (const auto &[name, reason] : cases) {
        const auto result = run({tree / name, {}});
        EXPECT_EQ(result.exitCode, -1) << name;
        EXPECT_THAT(result.output, HasSubstr((tree / name).path()));
        EXPECT_THAT(result.output, HasSubstr(reason)) << name;
    }
    // Cut at the NUL, the argument would be another one.
    EXPECT_EQ(run({FileURL("/bin/echo"), {std::string("a\0b", 3)}}).exitCode, -1);
}

TEST(ProcessCommandRunner, putsTheToolFoldersFirstInTheSearchPath) {
    ::setenv("HOME", "/home/ann", 1);
    const std::string preferred = "/opt/homebrew/bin:/opt/homebrew/sbin:/usr/local/bin:"
                                  "/home/ann/.local/bin:/usr/bin:/bin:/usr/sbin:/sbin";
    ::unsetenv("PATH");
    EXPECT_EQ(ProcessCommandRunner::environment().at("PATH"), preferred);
    const std::pair<const char *, std::string> cases[] = {
        {"", preferred},
        {":", preferred},
        {"/b:/a:/b:/usr/bin/", preferred + ":/b:/a:/b:/usr/bin/"},
        {"/usr/bin:/custom/bin::/opt/homebrew/bin", preferred + ":/custom/bin"},
    };
    for (const auto &[inherited, expected] : cases) {
        ::setenv("PATH", inherited, 1);
        EXPECT_EQ(ProcessCommandRunner::environment().at("PATH"), expected);
    }
    ::setenv("HOMEBREW_NO_AUTO_UPDATE", "0", 1);
    ::setenv("KLARBOX_TEST", "a=b\nc", 1);
    EXPECT_EQ(run(script("echo \"$PATH|$HOMEBREW_NO_AUTO_UPDATE|$HOMEBREW_NO_ENV_HINTS|"
                         "$KLARBOX_TEST\""))
                  .output,
              preferred + ":/custom/bin|1|1|a=b\nc\n");
}

/// A shell waits for its command before it runs a trap; hence the short sleeps.
constexpr auto obedient = "trap 'echo > terminated; exit' TERM; while :; do sleep 0.05; done";

TEST(ProcessCommandRunner, stopsWaitingAtTheLimitAndAsksTheToolToTerminate) {
    const auto deaf = "trap '' TERM; while :; do echo more; done"; // and never silent
    for (const bool obeys : {true, false}) {
        const TemporaryTree tree;
        const auto start = Clock::now();
        const auto tool =
            scriptIn(tree, std::string("echo $$ > pid; echo lost; ") + (obeys ? obedient : deaf));
        EXPECT_EQ(run(tool, 1s), (CommandResult{-2, "Timed out"}));
        EXPECT_GE(Clock::now() - start, 1s);
        EXPECT_LT(Clock::now() - start, 20s);
        const auto pid = pidIn(tree / "pid");
        ASSERT_GT(pid, 0);
        if (obeys) {
            EXPECT_TRUE(appearsSoon(tree / "terminated"));
        } else {
            EXPECT_EQ(::kill(pid, SIGKILL), 0) << "it was killed harder";
        }
        EXPECT_TRUE(isReapedSoon(pid));
    }
    EXPECT_EQ(run({FileURL("/bin/sleep"), {"60"}}, std::chrono::nanoseconds::min()).exitCode, -2);
    EXPECT_EQ(run(script("exit 5"), std::chrono::nanoseconds::max()).exitCode, 5);
}

TEST(ProcessCommandRunner, isNotHeldBeyondTheLimitByOthersThatKeepTheOutputOpen) {
    const TemporaryTree tree;
    const auto start = Clock::now();
    const auto result = run(scriptIn(tree, "echo read; (while [ ! -e go ]; do sleep 0.05; done; "
                                           "echo unread; echo > survived) & exit 4"),
                            1s);
    EXPECT_EQ(result, (CommandResult{4, "read\n"}));
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_LT(Clock::now() - start, 20s);
    // Still drained: a closed pipe would end it by SIGPIPE when it writes.
    tree.add({"go", text("")});
    EXPECT_TRUE(appearsSoon(tree / "survived"));
}

std::atomic<bool> isHeld = false;

TEST(ProcessCommandRunner, tellsTheToolOfAStopAtOnceAndEndsTheWait) {
    const TemporaryTree tree;
    std::stop_source stop;
    std::atomic<pid_t> thread = 0;
    auto waiter = std::async(std::launch::async, [&] {
        thread = ::gettid();
        const auto tool = scriptIn(tree, std::string("echo > begun; ") + obedient);
        return ProcessCommandRunner().run(tool, 200s, stop.get_token()).exitCode;
    });
    EXPECT_TRUE(appearsSoon(tree / "begun"));
    EXPECT_TRUE(eventually([&] { // in its wait
        std::string status;
        std::getline(std::ifstream(fmt::format("/proc/self/task/{}/stat", thread.load())), status);
        return status.find(") S ") != std::string::npos;
    }));
    // As on a busy machine, the thread that waits gets no turn before this process ends.
    isHeld = true;
    std::signal(SIGUSR1, [](int) {
        while (isHeld) {
            ::usleep(1000);
        }
    });
    ::tgkill(::getpid(), thread, SIGUSR1);
    stop.request_stop();
    EXPECT_TRUE(appearsSoon(tree / "terminated"));
    isHeld = false;
    EXPECT_EQ(waiter.get(), -2);
    std::signal(SIGUSR1, SIG_DFL);

    const auto never = scriptIn(tree, "echo > never");
    EXPECT_EQ(ProcessCommandRunner().run(never, 60s, stop.get_token()).exitCode, -2);
    EXPECT_FALSE(FileManager::exists(tree / "never"));
}

TEST(ProcessCommandRunner, tellsHowAToolEndedWithoutMemoryToo) {
    const TemporaryTree tree;
    const auto tool = scriptIn(tree, "echo > ran; echo what the tool says; exit 3");
    bool isOut = true;
    for (int allocations = 0; isOut; ++allocations) {
        allocationsLeft = allocations;
        const auto result = ProcessCommandRunner().run(tool, 60s);
        isOut = std::exchange(allocationsLeft, -1) == 0;
        const bool ran = std::filesystem::remove((tree / "ran").path());
        EXPECT_EQ(result.exitCode, ran ? 3 : -1) << allocations;
        EXPECT_TRUE(result.output == "Out of memory" || result.output == "what the tool says\n");
    }
}

TEST(ProcessCommandRunner, handsNoDescriptorAndNoSignalSettingOn) {
    const int inherited = ::open("/dev/null", O_RDONLY); // as the shell may leave us one
    ASSERT_GE(inherited, 0);
    EXPECT_EQ(run(script("ls /proc/$$/fd; :")).output, "0\n1\n2\n");
    ::close(inherited);

    const auto oldPipe = std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigset_t old;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &old);
    const auto result = run(script("grep -E '^Sig(Blk|Ign)' /proc/self/status | cut -f 2"));
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    std::signal(SIGPIPE, oldPipe);
    std::uint64_t leftBlocked = 1;
    std::uint64_t leftIgnored = 1;
    std::istringstream(result.output) >> std::hex >> leftBlocked >> leftIgnored;
    EXPECT_EQ(leftBlocked, 0U) << result.output;
    // The C library keeps two for itself and lets nobody change them.
    EXPECT_EQ(leftIgnored & ~(std::uint64_t{3} << 31), 0U) << result.output;
}

TEST(ProcessCommandRunner, worksHoweverThisProcessWasStarted) {
    const auto tool = script("echo out; echo error >&2; ls /proc/$$/fd; cat");
    EXPECT_EXIT(
        {
            ::close(STDIN_FILENO);
            ::close(STDOUT_FILENO);
            ::_exit(run(tool) == CommandResult{0, "out\nerror\n0\n1\n2\n"} ? 42 : 1);
        },
        ExitedWithCode(42), "");
    EXPECT_EXIT(
        {
            std::signal(SIGCHLD, SIG_IGN); // nobody keeps a status, and none is no success
            ::_exit(run(script("exit 3")).exitCode != 0 ? 42 : 1);
        },
        ExitedWithCode(42), "");
}

TEST(ProcessCommandRunner, runsManyToolsAtOnceAndLeaksNothing) {
    const auto runSome = [](int caller) {
        for (int i = 0; i < 10; ++i) {
            const auto text = std::to_string(caller) + "." + std::to_string(i);
            EXPECT_EQ(run(script("echo " + text)), (CommandResult{0, text + "\n"}));
            EXPECT_EQ(run({FileURL("/no/such/tool"), {}}).exitCode, -1);
            EXPECT_EQ(run({FileURL("/bin/sleep"), {"60"}}, 2ms).exitCode, -2);
        }
    };
    runSome(0);
    // What stays for good is what takes over the children left behind.
    const auto before = openDescriptors();
    {
        std::vector<std::jthread> callers;
        for (int caller = 0; caller < 8; ++caller) {
            callers.emplace_back(runSome, caller);
        }
    }
    EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; }))
        << openDescriptors() << " descriptors, before " << before;
    EXPECT_TRUE(eventually([] { return ::waitpid(-1, nullptr, WNOHANG) < 0; })) << "zombies";
}

} // namespace
} // namespace klarbox::test
