#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Linux/Capabilities.hpp"
#include "KlarboxKit/Platform/Linux/SystemCallFilter.hpp"

#include "Tests/Support/Sanitizers.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <linux/fs.h>
#include <map>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(SystemCallFilter, leavesADaemonNothingToDoHarmWith) {
    const TemporaryTree tree{{"file", text("kept")}, {"doomed", text("")}};
    const auto path = (tree / "file").path();
    const auto doomed = (tree / "doomed").path();
    const auto opened = [](int fd) { return fd >= 0 ? 0 : -1; };
    const UniqueFD file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    const int writable = file.get();
    iovec data{.iov_base = const_cast<char *>("lost"), .iov_len = 4};
    char byte = 0;
    iovec own{.iov_base = &byte, .iov_len = 1};
    const char *const arguments[]{"true", nullptr};
    const std::pair<const char *, std::function<long()>> harm[] = {
        {"open to write", [&] { return opened(::open(path.c_str(), O_WRONLY)); }},
        {"make a file", [&] { return opened(::open((path + "2").c_str(), O_CREAT, 0600)); }},
        {"write by mapping",
         [&] {
             return ::mmap(nullptr, 4, PROT_READ, MAP_SHARED, writable, 0) == MAP_FAILED ? -1 : 0;
         }},
        {"copy from another file", [&] { return ::ioctl(writable, FICLONE, writable); }},
        {"shorten", [&] { return ::ftruncate(writable, 0); }},
        {"change the mode", [&] { return ::chmod(path.c_str(), 0777); }},
        {"rename", [&] { return ::rename(path.c_str(), doomed.c_str()); }},
        {"link", [&] { return ::link(path.c_str(), (path + "2").c_str()); }},
        {"make a folder", [&] { return ::mkdir((path + "2").c_str(), 0700); }},
        {"start a program",
         [&] { return ::execv("/bin/true", const_cast<char *const *>(arguments)); }},
        {"start one beside",
         [&] {
             errno = ::posix_spawn(nullptr, "/bin/true", nullptr, nullptr,
                                   const_cast<char *const *>(arguments), nullptr);
             return errno == 0 ? 0 : -1;
         }},
        {"trace", [] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
        {"read another's memory",
         [&] { return ::process_vm_readv(::getpid(), &own, 1, &own, 1, 0); }},
        {"signal", [] { return ::kill(::getpid(), 0); }},
        {"another namespace", [] { return ::unshare(CLONE_NEWUSER); }},
        {"one for a child",
         [] { return ::syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0); }},
        {"a user again", [] { return ::syscall(SYS_setresuid, 0, 0, 0); }},
    };
    // Sanitizers would not work without.
    const std::pair<const char *, std::function<long()>> writing[] = {
        {"write", [&] { return ::write(writable, "lost", 4); }},
        {"write at a place", [&] { return ::pwrite(writable, "lost", 4, 0); }},
        {"write from pieces", [&] { return ::pwritev2(writable, &data, 1, 0, 0); }},
    };
    std::map<std::string, bool> isRefused;
    bool mayRemove = false;
    bool mayRead = false;
    // What holds for a thread and those it starts leaves the test's own alone.
    std::thread([&] {
        keepCapabilities({});
        forbidSystemCalls(FileAccess::readingAndRemoving);
        for (const auto &[what, act] : harm) {
            isRefused[what] = act() == -1 && errno == EPERM;
        }
        for (const auto &[what, act] : writing) {
            isRefused[what] = isSanitized || (act() == -1 && errno == EPERM);
        }
        mayRemove = ::unlink(doomed.c_str()) == 0;
        std::thread([&] {
            mayRead = UniqueFD(::open(path.c_str(), O_RDONLY | O_CLOEXEC)).get() >= 0;
        }).join();
        forbidSystemCalls(FileAccess::reading);
        isRefused["remove"] = ::unlink(path.c_str()) == -1 && errno == EPERM;
    }).join();
    for (const auto &[what, holds] : isRefused) {
        EXPECT_TRUE(holds) << what;
    }
    EXPECT_TRUE(mayRemove);
    EXPECT_TRUE(mayRead);
    EXPECT_EQ(FileManager::contents(tree / "file", 100), "kept");
}

} // namespace
} // namespace klarbox::test
