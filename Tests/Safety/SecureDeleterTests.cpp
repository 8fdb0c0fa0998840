#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "Tests/Support/HardTrees.hpp"
#include "Tests/Support/IsolatedProcess.hpp"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <filesystem>
#include <linux/fs.h>
#include <map>
#include <random>
#include <set>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// As on a system that does not tell what is a mount point.
std::atomic<bool> tellsNoMounts = false;
/// Found before any thread is started: what makes sure of that later would call it itself.
const auto realSyscall = reinterpret_cast<decltype(&::syscall)>(::dlsym(RTLD_NEXT, "syscall"));
/// As on one that cannot open a path without links in one step.
std::atomic<bool> opensStepByStep = false;

} // namespace

extern "C" long syscall(long number, ...) noexcept {
    if (number == SYS_openat2 && opensStepByStep) {
        errno = ENOSYS;
        return -1;
    }
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (auto &argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    return realSyscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                       arguments[5]);
}

extern "C" int statx(int fd, const char *name, int flags, unsigned wanted,
                     struct statx *status) noexcept {
    const auto code = ::syscall(SYS_statx, fd, name, flags, wanted, status);
    if (code == 0 && tellsNoMounts) {
        status->stx_attributes_mask = 0;
        status->stx_attributes = 0;
    }
    return static_cast<int>(code);
}

namespace klarbox::test {
namespace {

namespace fs = std::filesystem;

/// The POSIX code that deleting ends with, 0 for none.
int deleted(const FileURL &url) {
    try {
        SecureDeleter().deletePermanently(url);
        return 0;
    } catch (const PlatformError &error) {
        EXPECT_EQ(error.domain(), PlatformError::Domain::posix);
        EXPECT_EQ(error.cause(), nullptr);
        return error.code();
    }
}

bool isThere(const FileURL &url) {
    return FileManager::type(url).has_value();
}

bool setImmutable(const FileURL &url, bool on) {
    const UniqueFD file(::open(url.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    int flags = 0;
    if (!file || ::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) {
        return false;
    }
    flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    return ::ioctl(file.get(), FS_IOC_SETFLAGS, &flags) == 0;
}

TEST(SecureDeleter, touchesNothingWhereThePathNamesNoEntryOrLeadsThroughALink) {
    const TemporaryTree tree{
        {"d/a/b", bytes(3)},
        {"link", link("d")},
        {"file", bytes(1)},
    };
    const auto path = tree.root().path();
    const std::pair<std::string, int> cases[] = {
        {"/", EINVAL},
        {path + "/d/./a", EINVAL},
        {path + "/d/../d/a", EINVAL},
        {path + "/d/..", EINVAL},
        {path + std::string("/d\0x", 4), EINVAL},
        {path + "/none", ENOENT},
        {path + "/none/x", ENOENT},
        {path + "/link/a", ENOTDIR},
        {path + "/file/a", ENOTDIR},
        {path + "/" + std::string(300, 'x'), ENAMETOOLONG},
    };
    const auto before = manifest(tree.root());
    for (const bool isStepByStep : {true, false}) {
        opensStepByStep = isStepByStep;
        for (const auto &[at, code] : cases) {
            EXPECT_EQ(deleted(FileURL(at)), code) << at;
        }
    }
    try {
        SecureDeleter().moveToTrash(tree / "file");
        ADD_FAILURE() << "moved";
    } catch (const PlatformError &error) {
        EXPECT_EQ(error.code(), ENOTSUP);
    }
    EXPECT_EQ(manifest(tree.root()), before);
}

TEST(SecureDeleter, removesLinksAndNotWhatTheyLeadTo) {
    const TemporaryTree tree{
        {"outside/file", text("kept")},
        {"outside/folder/deep", bytes(10)},
        {"t/toFile", link("../outside/file")},
        {"t/toFolder", link("../outside/folder")},
        {"t/dangling", link("nowhere")},
        {"t/up", link("..")},
        {"t/hard", hardLink("outside/file")},
        {"t/empty", directory()},
        {"t/sub/toFolder", link("../../outside/folder")},
        {"t/ name\nwith \xff\xfe bytes", bytes(1)},
        {"t/\xc3\x28/x", bytes(1)},
        {"t/" + std::string(255, 'n') + "/x", bytes(1)},
        {"single", link("outside/folder")},
    };
    ASSERT_EQ(::mkfifo((tree / "t/fifo").path().c_str(), 0600), 0);
    ASSERT_EQ(::mknod((tree / "t/socket").path().c_str(), S_IFSOCK | 0600, 0), 0);
    const auto before = manifest(tree / "outside");
    EXPECT_EQ(deleted(tree / "t"), 0);
    EXPECT_EQ(deleted(tree / "single"), 0);
    EXPECT_FALSE(isThere(tree / "t"));
    EXPECT_FALSE(isThere(tree / "single"));
    EXPECT_EQ(manifest(tree / "outside"), before);
}

TEST(SecureDeleter, removesBroadAndDeepTreesWithFewDescriptorsAndLittleStack) {
    const TemporaryTree tree(inMemory, {{"deep", directory()}, {"broad", directory()}});
    makeChain(tree / "deep", 20'000, "d", 1);
    for (int file = 0; file < 6'000; ++file) {
        tree.add({fmt::format("broad/{}/sub/{}", file % 300, file), bytes(0)});
        tree.add({fmt::format("broad/flat/{}", file), bytes(0)});
    }
    inIsolatedProcess([&] {
        limitDescriptors(16);
        opensStepByStep = true;
        for (const auto *name : {"deep", "broad"}) {
            // A thread's stack is smaller than the process's.
            std::jthread([&] { EXPECT_EQ(deleted(tree / name), 0); }).join();
            EXPECT_FALSE(isThere(tree / name));
        }
    });
}

TEST(SecureDeleter, anEntryThatMustStayStopsNoOther) {
    inIsolatedProcess([] {
        becomeOrdinaryUser();
        const TemporaryTree tree{
            {"t/a", bytes(1)},
            {"t/readOnly/stays", bytes(1)},
            {"t/readOnly/folder/goes", bytes(1)},
            {"t/unlistable/stays", bytes(1)},
            {"t/z/goes", bytes(1)},
            {"t/readOnly", directory(), std::nullopt, 0500},
            {"t/unlistable", directory(), std::nullopt, 0300},
            {"locked/empty", directory()},
            {"locked", directory(), std::nullopt, 0500},
            {"closed/t/x", bytes(1)},
            {"closed", directory(), std::nullopt, 0600},
        };
        EXPECT_EQ(deleted(tree / "t"), EACCES);
        EXPECT_TRUE(isThere(tree / "t/readOnly/stays"));
        EXPECT_TRUE(isThere(tree / "t/unlistable/stays"));
        EXPECT_TRUE(isThere(tree / "t/readOnly/folder"));
        for (const auto *gone : {"t/a", "t/readOnly/folder/goes", "t/z"}) {
            EXPECT_FALSE(isThere(tree / gone)) << gone;
        }
        EXPECT_EQ(deleted(tree / "locked"), EACCES);
        EXPECT_EQ(deleted(tree / "closed/t"), EACCES);
    });
}

void expectMountsToStay() {
    const TemporaryTree tree{
        {"t/a", bytes(1)},         {"t/mounted", directory()},
        {"t/bound", directory()},  {"t/sub/bound", directory()},
        {"t/sub/gone", bytes(1)},  {"t/z", bytes(1)},
        {"t/boundFile", bytes(1)}, {"elsewhere/kept", text("k")},
        {"top", directory()},
    };
    const auto before = manifest(tree / "elsewhere");
    inIsolatedProcess([&] {
        if (!enterMountNamespace()) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        ASSERT_TRUE(mountOn(tree / "t/mounted"));
        tree.add({"t/mounted/kept", bytes(5)});
        ASSERT_TRUE(bindOn(tree / "elsewhere", tree / "t/bound"));
        ASSERT_TRUE(bindOn(tree / "t", tree / "t/sub/bound")); // a folder inside itself
        ASSERT_TRUE(bindOn(tree / "elsewhere", tree / "top"));
        ASSERT_TRUE(bindOn(tree / "elsewhere/kept", tree / "t/boundFile"));
        EXPECT_THAT(deleted(tree / "t"), testing::AnyOf(EXDEV, EBUSY));
        EXPECT_EQ(deleted(tree / "t/sub"), EXDEV);
        EXPECT_EQ(deleted(tree / "t/boundFile"), EBUSY);
        EXPECT_EQ(deleted(tree / "top"), EXDEV);
        EXPECT_TRUE(isThere(tree / "t/mounted/kept"));
        for (const auto *gone : {"t/a", "t/z", "t/sub/gone"}) {
            EXPECT_FALSE(isThere(tree / gone)) << gone;
        }
    });
    EXPECT_EQ(manifest(tree / "elsewhere"), before);
}

TEST(SecureDeleter, neverEntersAnotherFileSystemNorRemovesAMountPoint) {
    for (const bool tellsNone : {false, true}) {
        tellsNoMounts = tellsNone;
        expectMountsToStay();
    }
    tellsNoMounts = false;
}

/// Fills t at random, with entries that cannot be removed. Answers those and the reasons.
std::map<std::string, int> fillAtRandom(const TemporaryTree &tree, unsigned seed) {
    std::mt19937 random(seed);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    std::vector<std::string> folders{"t"};
    std::map<std::string, int> failing;
    for (int entry = 0; entry < 1'500; ++entry) {
        const auto path = fmt::format("{}/{}", folders[below(folders.size())], entry);
        const bool isFolder = below(8) == 0;
        tree.add(isFolder ? Entry{path, directory()} : Entry{path, bytes(0)});
        if (!isFolder && below(300) == 0 && setImmutable(tree / path, true)) {
            failing[(tree / path).path()] = EPERM;
        } else if (isFolder && below(100) == 0 && mountOn(tree / path)) {
            failing[(tree / path).path()] = EXDEV;
        } else if (isFolder) {
            folders.push_back(path);
        }
    }
    return failing;
}

TEST(SecureDeleter, severalThreadsComeToWhatOneWouldHaveComeTo) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const TemporaryTree tree(inMemory, {{"t", directory()}});
        const auto top = (tree / "t").path();
        inIsolatedProcess([&] {
            if (!enterMountNamespace()) {
                GTEST_SKIP() << "needs mounts of its own";
            }
            const auto failing = fillAtRandom(tree, seed);
            std::set<std::string> staying;
            int first = 0; // in the order of the listings
            for (const auto &entry : fs::recursive_directory_iterator(top)) {
                if (const auto found = failing.find(entry.path()); found != failing.end()) {
                    first = first == 0 ? found->second : first;
                    for (auto path = entry.path(); path != top; path = path.parent_path()) {
                        staying.insert(path);
                    }
                }
            }
            EXPECT_EQ(deleted(tree / "t"), first) << "seed " << seed;
            std::set<std::string> left;
            if (first != 0) {
                for (const auto &entry : fs::recursive_directory_iterator(top)) {
                    left.insert(entry.path());
                }
            }
            EXPECT_EQ(left, staying) << "seed " << seed;
            for (const auto &[path, code] : failing) {
                setImmutable(FileURL(path), false);
            }
        });
    }
}

TEST(SecureDeleter, stopsWhenAskedToAndLeavesTheRest) {
    const TemporaryTree tree(inMemory, {{"t", directory()}});
    constexpr std::int64_t files = 20'000;
    for (int file = 0; file < files; ++file) {
        tree.add({fmt::format("t/{}/{}", file % 40, file), bytes(0)});
    }
    const auto left = [&] {
        std::int64_t count = 0;
        for (const auto &entry : fs::recursive_directory_iterator((tree / "t").path())) {
            count += entry.is_directory() ? 0 : 1;
        }
        return count;
    };
    const auto caller = std::this_thread::get_id();
    for (const int last : {1, 3}) {
        const auto before = left();
        int questions = 0;
        try {
            SecureDeleter().deletePermanently(PinnedEntry::open(tree / "t"), [&] {
                EXPECT_EQ(std::this_thread::get_id(), caller);
                return ++questions == last;
            });
            ADD_FAILURE() << "not stopped";
        } catch (const PlatformError &error) {
            EXPECT_EQ(error.code(), ECANCELED);
        }
        EXPECT_EQ(questions, last);
        // Others may have removed as much as the thread that asks, and a little more.
        EXPECT_LT(left(), before);
        EXPECT_GT(left(), before / 2);
    }
    int questions = 0;
    SecureDeleter().deletePermanently(PinnedEntry::open(tree / "t"),
                                      [&] { return ++questions < 0; });
    EXPECT_GT(questions, 5);
    EXPECT_FALSE(isThere(tree / "t"));
}

/// Deletes small trees while another thread exchanges a folder of theirs with a link, or moves it.
void deleteUnderAttack(const TemporaryTree &tree) {
    constexpr int rounds = 2'000;
    std::atomic<int> round = 0;
    std::atomic<long> hits = 0;
    std::jthread attacker([&] {
        const char *const targets[] = {"t", "t/1", "t/1/sub", "t/1/sub/deeper"};
        for (int at = round; at < rounds; at = round) {
            const auto base = (tree / std::to_string(at)).path();
            const bool isMove = at % 5 == 4;
            const auto target = base + "/" + (isMove ? "t/1/sub" : targets[at % 5]);
            const auto other = isMove ? (tree / "vault/sub").path() : base + "/link";
            const unsigned how = isMove ? RENAME_NOREPLACE : RENAME_EXCHANGE;
            while (round == at) {
                if (::renameat2(AT_FDCWD, target.c_str(), AT_FDCWD, other.c_str(), how) == 0) {
                    ++hits;
                    ::renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, target.c_str(), how);
                }
            }
            ::rename(other.c_str(), (base + "/left").c_str()); // whatever it was stopped at
        }
    });
    for (int next = 1; next <= rounds; ++next) {
        const auto base = tree / std::to_string(next);
        for (const auto *name : {"0/x", "1/a", "1/sub/b", "1/sub/deeper/c", "1/z", "1/k", "2/x"}) {
            makeEntry(base, {fmt::format("t/{}", name), bytes(0)});
        }
        makeEntry(base, {"link", link("../victim")});
        round = next;
        const auto code = deleted(base.appending("t"));
        EXPECT_TRUE(code != 0 || !isThere(base.appending("t"))) << "said to be gone";
    }
    attacker.join();
    EXPECT_GT(hits, rounds);
}

TEST(SecureDeleter, nobodyCanLeadItOutByExchangingFoldersAndLinks) {
    for (const unsigned descriptors : {16U, 512U}) {
        // The names in both are those of entries that are removed.
        const TemporaryTree tree(inMemory, {
                                               {"victim/1/sub/b", text("precious")},
                                               {"victim/sub/deeper/c", text("precious")},
                                               {"victim/deeper/c", text("precious")},
                                               {"victim/c", text("precious")},
                                               {"vault/a", text("precious")},
                                               {"vault/z", text("precious")},
                                               {"vault/k", text("precious")},
                                           });
        const auto contents = [&] {
            ::rename((tree / "vault/sub").path().c_str(), (tree / "left").path().c_str());
            // The attacker's own moves show in the dates.
            for (const auto *folder : {"vault", "victim"}) {
                setModified(tree / folder, {});
            }
            return manifest(tree / "victim") + manifest(tree / "vault");
        };
        const auto before = contents();
        inIsolatedProcess([&] {
            limitDescriptors(descriptors);
            deleteUnderAttack(tree);
        });
        EXPECT_EQ(contents(), before) << descriptors << " descriptors";
    }
}

} // namespace
} // namespace klarbox::test
