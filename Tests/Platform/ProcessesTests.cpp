#include "KlarboxKit/Platform/ChildProcess.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Processes.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <span>

#include <fmt/ranges.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

std::optional<RunningProcess> find(const std::string &executable) {
    const auto all = runningProcesses();
    const auto found = std::ranges::find(all, executable, &RunningProcess::executable);
    return found == all.end() ? std::nullopt : std::optional(*found);
}

/// The process that runs the executable, once it is up; nothing when `child` ends before that. Just
/// after its start a process has its executable already, but not its arguments.
std::optional<RunningProcess> waitFor(const std::string &executable, ChildProcess &child) {
    do {
        if (auto found = find(executable); found && !found->arguments.empty()) {
            return found;
        }
    } while (!child.wait(5ms));
    return std::nullopt;
}

TEST(Processes, areToldWithTheirExecutableAndEveryArgument) {
    const TemporaryTree tree;
    const auto program = tree / "a program (deleted)"; // as the system writes of one that is gone
    std::filesystem::copy_file("/usr/bin/sleep", program.path());
    // Longer than any one read, and what matters after it.
    const std::vector<std::string> arguments{"30", "0." + std::string(100'000, '0'), " 0", "0"};
    ChildProcess child(program, arguments, {});

    const auto running = waitFor(program.path(), child);
    ASSERT_TRUE(running);
    EXPECT_EQ(running->arguments.front(), program.path());
    EXPECT_TRUE(std::ranges::equal(std::span(running->arguments).subspan(1), arguments));
    EXPECT_EQ(running->packagedApplication, std::nullopt);

    // An update replaces the file under the process.
    std::filesystem::remove(program.path());
    EXPECT_TRUE(find(program.path()));
    std::filesystem::copy_file("/usr/bin/sleep", program.path() + " (deleted)");
    EXPECT_TRUE(find(program.path())) << "another file has the name of the one that is gone";

    child.terminate();
    ASSERT_TRUE(child.wait(10s));
    EXPECT_FALSE(find(program.path()));
}

TEST(Processes, areNotThisOneNorPartsOfTheKernel) {
    // Tests of this program run side by side, each in a process with arguments of its own.
    auto own = FileManager::contents(FileURL("/proc/self/cmdline"));
    own.pop_back();
    const auto running = runningProcesses();
    ASSERT_FALSE(running.empty());
    for (const auto &process : running) {
        EXPECT_NE(fmt::format("{}", fmt::join(process.arguments, "\0"sv)), own);
        EXPECT_FALSE(process.executable.empty() && process.arguments.empty());
    }
}

TEST(Processes, inAFlatpakSandboxBelongToItsApplication) {
    const TemporaryTree tree{
        {"app-info", text("[Application]\nname=org.example.Viewer\nruntime=runtime/x/y\n\n"
                          "[Context]\nname=no.application\n")},
        {"runtime-info", text("[Runtime]\nname=org.example.Platform\n")},
    };
    std::filesystem::copy_file("/usr/bin/sleep", (tree / "viewer").path());
    const std::pair<const char *, std::optional<std::string>> cases[] = {
        {"app-info", "org.example.Viewer"}, {"runtime-info", std::nullopt}};
    for (const auto &[info, expected] : cases) {
        const auto command =
            fmt::format("exec /usr/bin/bwrap --die-with-parent --tmpfs / --ro-bind /usr /usr "
                        "--symlink usr/lib /lib --symlink usr/lib64 /lib64 "
                        "--ro-bind {0}/{1} /.flatpak-info --ro-bind {0}/viewer /{1} /{1} 30",
                        tree.root().path(), info);
        ChildProcess sandbox(FileURL("/bin/sh"), {"-c", command}, {});
        const auto viewer = waitFor("/" + std::string(info), sandbox);
        if (!viewer) {
            GTEST_SKIP() << "bwrap cannot make a sandbox here: " << sandbox.output();
        }
        EXPECT_EQ(viewer->packagedApplication, expected);
        sandbox.terminate();
        EXPECT_TRUE(sandbox.wait(10s));
    }
}

} // namespace
} // namespace klarbox::test
