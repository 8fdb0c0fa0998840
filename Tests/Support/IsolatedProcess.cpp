#include "Tests/Support/IsolatedProcess.hpp"

#include "KlarboxKit/Platform/Linux/Capabilities.hpp"

#include "Tests/Support/Programs.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace klarbox::test {

namespace {

constexpr int failed = 1;
constexpr int skipped = 2;

int outcomeOf(const std::function<void()> &body) {
    try {
        body();
    } catch (const std::exception &error) {
        ADD_FAILURE() << error.what();
    }
    return testing::Test::HasFailure() ? failed : testing::Test::IsSkipped() ? skipped : 0;
}

std::ptrdiff_t threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

#if defined(__SANITIZE_THREAD__)
constexpr std::ptrdiff_t ownThreads = 2; // the sanitizer's beside the test's
#else
constexpr std::ptrdiff_t ownThreads = 1;
#endif

/// A process forked from one with several threads has their locks and not them. The engine's own
/// threads end soon after there is nothing left for them to do.
void waitForOtherThreads() {
    eventually([] { return threads() <= ownThreads; }, std::chrono::seconds(10));
}

} // namespace

void inIsolatedProcess(const std::function<void()> &body) {
    waitForOtherThreads();
    std::fflush(nullptr);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int code = outcomeOf(body);
        std::fflush(nullptr);
        ::_exit(code); // nothing of the test runner's is run down twice
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == skipped) {
        GTEST_SKIP();
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

bool enterMountNamespace() {
    const auto uid = ::getuid();
    const auto gid = ::getgid();
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << uid << ' ' << uid << " 1";
        std::ofstream("/proc/self/gid_map") << gid << ' ' << gid << " 1";
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

void becomeOrdinaryUser() {
    constexpr unsigned nobody = 65534;
    if (::geteuid() == 0) {
        check(::setgroups(0, nullptr) == 0, "setgroups");
        check(::setresgid(nobody, nobody, nobody) == 0, "setresgid");
        check(::setresuid(nobody, nobody, nobody) == 0, "setresuid");
    }
    keepCapabilities({}); // in a namespace of its own it may have had them all
}

void limitDescriptors(unsigned count) {
    const rlimit limit{count, count};
    check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

} // namespace klarbox::test
