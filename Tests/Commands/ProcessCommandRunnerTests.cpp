#include "KlarboxKit/Commands/ProcessCommandRunner.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

CommandAction shell(std::string script) {
    return {FileURL("/bin/sh"), {"-c", std::move(script)}};
}

CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout = 60s) {
    return ProcessCommandRunner().run(action, timeout);
}

/// Polls, as nothing tells when the background has done its work. Long enough for a busy machine.
bool happensSoon(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

bool exists(const FileURL &url) {
    return std::filesystem::exists(url.path());
}

pid_t pidIn(const FileURL &file) {
    pid_t pid = -1;
    std::ifstream(file.path()) >> pid;
    return pid;
}

std::size_t openDescriptors() {
    const std::filesystem::directory_iterator listing("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(listing), end(listing)));
}

class Stopwatch {
public:
    auto elapsed() const { return std::chrono::steady_clock::now() - start_; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Sets or unsets an environment variable for the time of a test.
class Variable {
public:
    Variable(const char *name, const char *value) : name_(name) {
        if (const char *old = std::getenv(name)) {
            old_ = old;
        }
        set(value);
    }
    ~Variable() { set(old_ ? old_->c_str() : nullptr); }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;

private:
    void set(const char *value) const {
        value == nullptr ? ::unsetenv(name_) : ::setenv(name_, value, 1);
    }
    const char *name_;
    std::optional<std::string> old_;
};

TEST(ProcessCommandRunner, returnsTheStatusAndEverythingWritten) {
    const struct {
        CommandAction action;
        CommandResult expected;
    } cases[] = {
        {shell("echo a; echo b >&2; echo c"), {0, "a\nb\nc\n"}},
        {shell("echo why; exit 3"), {3, "why\n"}},
        {shell("exit 255"), {255, ""}},
        {shell("printf 'a\\377b\\342\\202'"), {0, "a\uFFFDb\uFFFD"}},
        {shell("cat; echo end"), {0, "end\n"}}, // standard input is empty, not ours
        {shell("echo begun; kill -KILL $$"), {SIGKILL, "begun\n"}},
        {shell("exec >&- 2>&-; exit 7"), {7, ""}}, // output closed long before the exit
        {{FileURL("/usr/bin/printf"), {"%s|", "a b", "*", "", "$HOME"}}, {0, "a b|*||$HOME|"}},
    };
    for (const auto &[action, expected] : cases) {
        EXPECT_EQ(run(action), expected) << action.displayString();
    }
}

TEST(ProcessCommandRunner, saysWhichToolCouldNotBeStartedAndWhy) {
    const TemporaryTree tree{
        {"plain", text("#!/bin/sh\n"), std::nullopt, 0644},
        {"garbage", text("no program"), std::nullopt, 0755},
        {"lost", text("#!/no/such/interpreter\n"), std::nullopt, 0755},
        {"folder", directory()},
    };
    const struct {
        const char *name;
        const char *reason;
    } cases[] = {
        {"missing", "No such file or directory"}, {"plain", "Permission denied"},
        {"garbage", "Exec format error"},         {"lost", "No such file or directory"},
        {"folder", "Permission denied"},          {"plain/below", "Not a directory"},
    };
    for (const auto &[name, reason] : cases) {
        const auto tool = tree / name;
        const auto result = run({tool, {}});
        EXPECT_EQ(result.exitCode, -1) << name;
        EXPECT_THAT(result.output, HasSubstr(tool.path()));
        EXPECT_THAT(result.output, HasSubstr(reason)) << name;
    }
    // Cut at the NUL, the argument would be another one.
    EXPECT_EQ(run({FileURL("/bin/echo"), {std::string("a\0b", 3)}}).exitCode, -1);
}

TEST(ProcessCommandRunner, putsTheToolFoldersFirstInTheSearchPath) {
    const Variable home("HOME", "/home/ann");
    const std::string preferred = "/opt/homebrew/bin:/opt/homebrew/sbin:/usr/local/bin:"
                                  "/home/ann/.local/bin:/usr/bin:/bin:/usr/sbin:/sbin";
    const struct {
        const char *inherited;
        std::string expected;
    } cases[] = {
        {"/usr/bin:/custom/bin::/opt/homebrew/bin", preferred + ":/custom/bin"},
        {nullptr, preferred},
        {"", preferred},
        {":", preferred},
        {"/b:/a:/b:/usr/bin/", preferred + ":/b:/a:/b:/usr/bin/"},
    };
    for (const auto &[inherited, expected] : cases) {
        const Variable path("PATH", inherited);
        EXPECT_EQ(ProcessCommandRunner::environment().at("PATH"), expected);
    }
    const Variable path("PATH", "/custom/bin");
    const Variable update("HOMEBREW_NO_AUTO_UPDATE", "0");
    const Variable kept("KLARBOX_TEST", "a=b\nc");
    const auto shown = shell("echo \"$PATH|$HOMEBREW_NO_AUTO_UPDATE|$HOMEBREW_NO_ENV_HINTS|"
                             "$KLARBOX_TEST\"");
    EXPECT_EQ(run(shown).output, preferred + ":/custom/bin|1|1|a=b\nc\n");
}

TEST(ProcessCommandRunner, stopsWaitingAtTheLimitAndAsksTheToolToTerminate) {
    const TemporaryTree tree;
    const Stopwatch watch;
    // The trap needs the loop's short sleeps: a shell waits for its command before it runs a trap.
    const auto result =
        run(shell("echo $$ > '" + (tree / "pid").path() + "'; echo lost;" + "trap 'echo > " +
                  (tree / "terminated").path() + "; exit' TERM;" + "while :; do sleep 0.05; done"),
            1s);
    EXPECT_EQ(result, (CommandResult{-2, "Timed out"}));
    EXPECT_GE(watch.elapsed(), 1s);
    EXPECT_LT(watch.elapsed(), 20s);
    EXPECT_TRUE(happensSoon([&] { return exists(tree / "terminated"); }));
    const auto pid = pidIn(tree / "pid");
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(happensSoon([&] { return ::kill(pid, 0) != 0; })) << "left as a zombie";
}

TEST(ProcessCommandRunner, doesNotWaitForAToolThatIgnoresTheRequest) {
    const TemporaryTree tree;
    const auto result = run(shell("trap '' TERM; echo $$ > '" + (tree / "pid").path() +
                                  "'; while :; do echo more; done"),
                            1s);
    EXPECT_EQ(result.exitCode, -2);
    const auto pid = pidIn(tree / "pid");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(::kill(pid, SIGKILL), 0) << "it was killed harder";
    EXPECT_TRUE(happensSoon([&] { return ::kill(pid, 0) != 0; })) << "left as a zombie";
}

TEST(ProcessCommandRunner, isNotHeldBeyondTheLimitByOthersThatKeepTheOutputOpen) {
    const TemporaryTree tree;
    const Stopwatch watch;
    const auto result = run(shell("echo read; (while [ ! -e '" + (tree / "go").path() +
                                  "' ]; do sleep 0.05; done;" + " echo unread; echo > '" +
                                  (tree / "survived").path() + "') & exit 4"),
                            1s);
    EXPECT_EQ(result, (CommandResult{4, "read\n"}));
    EXPECT_GE(watch.elapsed(), 1s);
    EXPECT_LT(watch.elapsed(), 20s);
    // Still drained: a closed pipe would end it by SIGPIPE when it writes.
    tree.add({"go", text("")});
    EXPECT_TRUE(happensSoon([&] { return exists(tree / "survived"); }));
}

TEST(ProcessCommandRunner, endsTheWaitWhenAStopIsRequested) {
    const TemporaryTree tree;
    std::stop_source stop;
    std::jthread requester([&] {
        happensSoon([&] { return exists(tree / "begun"); });
        stop.request_stop();
    });
    const Stopwatch watch;
    const auto slow = shell("echo > '" + (tree / "begun").path() + "'; exec sleep 100");
    EXPECT_EQ(ProcessCommandRunner().run(slow, 200s, stop.get_token()).exitCode, -2);
    EXPECT_LT(watch.elapsed(), 60s);

    const auto never = shell("echo > '" + (tree / "never").path() + "'");
    EXPECT_EQ(ProcessCommandRunner().run(never, 60s, stop.get_token()).exitCode, -2);
    EXPECT_FALSE(exists(tree / "never"));
}

TEST(ProcessCommandRunner, takesAnyLimit) {
    EXPECT_EQ(run(shell("exit 5"), std::chrono::nanoseconds::max()).exitCode, 5);
    for (const auto limit : {0ns, -1ns, std::chrono::nanoseconds::min()}) {
        EXPECT_EQ(run({FileURL("/bin/sleep"), {"60"}}, limit).exitCode, -2);
    }
}

TEST(ProcessCommandRunner, handsNoDescriptorAndNoSignalSettingOn) {
    const int inherited = ::open("/dev/null", O_RDONLY); // as the shell may leave us one
    ASSERT_GE(inherited, 0);
    EXPECT_EQ(run(shell("ls /proc/$$/fd; :")).output, "0\n1\n2\n");
    ::close(inherited);

    const auto oldPipe = std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigset_t old;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &old);
    const auto result = run(shell("grep -E '^Sig(Blk|Ign)' /proc/self/status | cut -f 2"));
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    std::signal(SIGPIPE, oldPipe);
    std::uint64_t leftBlocked = 1;
    std::uint64_t leftIgnored = 1;
    std::istringstream(result.output) >> std::hex >> leftBlocked >> leftIgnored;
    // The C library keeps two for itself and lets nobody change them.
    leftIgnored &= ~(std::uint64_t{3} << 31);
    EXPECT_EQ(leftBlocked, 0U) << result.output;
    EXPECT_EQ(leftIgnored, 0U) << result.output;
}

TEST(ProcessCommandRunner, worksWithTheStandardDescriptorsClosed) {
    EXPECT_EXIT(
        {
            ::close(STDIN_FILENO);
            ::close(STDOUT_FILENO);
            const auto result = run(shell("echo out; echo error >&2; ls /proc/$$/fd; cat"));
            ::_exit(result == CommandResult{0, "out\nerror\n0\n1\n2\n"} ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

TEST(ProcessCommandRunner, doesNotTakeALostStatusForSuccess) {
    EXPECT_EXIT(
        {
            std::signal(SIGCHLD, SIG_IGN); // some launchers leave it so: nobody keeps the status
            const auto result = run(shell("exit 3"));
            ::_exit(result.exitCode != 0 ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

TEST(ProcessCommandRunner, leaksNothing) {
    const auto once = [] {
        run(shell("exit 0"));
        run({FileURL("/no/such/tool"), {}});
        run({FileURL("/bin/sleep"), {"60"}}, 1ms);
    };
    once();
    const auto settled = [](std::size_t count) {
        return happensSoon([&] { return openDescriptors() <= count; });
    };
    // What stays for good is what takes over the children left behind.
    const auto before = openDescriptors();
    for (int i = 0; i < 30; ++i) {
        once();
    }
    EXPECT_TRUE(settled(before)) << openDescriptors() << " descriptors, before " << before;
    EXPECT_TRUE(happensSoon([] { return ::waitpid(-1, nullptr, WNOHANG) < 0; })) << "zombies";
}

TEST(ProcessCommandRunner, runsManyToolsAtOnce) {
    std::vector<std::jthread> callers;
    for (int caller = 0; caller < 8; ++caller) {
        callers.emplace_back([caller] {
            for (int i = 0; i < 10; ++i) {
                const auto text = std::to_string(caller) + "." + std::to_string(i);
                EXPECT_EQ(run(shell("echo " + text)), (CommandResult{0, text + "\n"}));
                EXPECT_EQ(run({FileURL("/bin/sleep"), {"60"}}, 2ms).exitCode, -2);
            }
        });
    }
}

TEST(ProcessCommandRunner, readsTenMegabytesWithinASecond) {
    constexpr std::size_t size = 10'000'000;
    auto best = std::chrono::steady_clock::duration::max();
    // The best of a few, as others may keep the machine busy.
    for (int i = 0; i < 5 && best >= 1s; ++i) {
        const Stopwatch watch;
        const auto result = run(shell("head -c 10000000 /dev/zero | tr '\\0' x"));
        best = std::min(best, watch.elapsed());
        ASSERT_EQ(result.exitCode, 0);
        ASSERT_EQ(result.output.size(), size);
        ASSERT_EQ(result.output.find_first_not_of('x'), std::string::npos);
    }
    EXPECT_LT(best, 1s);
}

} // namespace
} // namespace klarbox::test
