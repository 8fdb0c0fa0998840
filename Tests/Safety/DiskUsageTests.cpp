#include "KlarboxKit/Commands/ProcessCommandRunner.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <fts.h>
#include <random>
#include <set>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// The listing of the folder with this inode breaks off after its first lot.
std::atomic<std::uint64_t> brokenFolder = 0;

} // namespace

extern "C" ssize_t getdents64(int fd, void *buffer, std::size_t size) noexcept {
    using Function = ssize_t (*)(int, void *, std::size_t);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getdents64"));
    struct stat status {};
    if (brokenFolder != 0 && ::lseek(fd, 0, SEEK_CUR) != 0 && ::fstat(fd, &status) == 0 &&
        status.st_ino == brokenFolder) {
        errno = EIO;
        return -1;
    }
    return real(fd, buffer, size);
}

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;

constexpr auto inMemory = TemporaryTree::Medium::memoryIfPossible;
constexpr std::int64_t interval = 2048;

/// What a file-tree walk on one thread counts, entry by entry in the order of the listings.
struct Reference {
    std::int64_t visited = 0;
    std::int64_t total = 0;
    std::int64_t beforeFirstQuestion = 0; ///< total when the entry of the first question is met
};

Reference walked(const std::vector<FileURL> &urls) {
    std::vector<char *> paths;
    for (const auto &url : urls) {
        paths.push_back(const_cast<char *>(url.path().c_str()));
    }
    paths.push_back(nullptr);
    Reference counted;
    std::set<std::pair<dev_t, ino_t>> met;
    FTS *stream = ::fts_open(paths.data(), FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr);
    while (const auto *entry = ::fts_read(stream)) {
        if (++counted.visited == interval) {
            counted.beforeFirstQuestion = counted.total;
        }
        if (entry->fts_info == FTS_DP || entry->fts_info == FTS_DNR || entry->fts_info == FTS_NS ||
            entry->fts_info == FTS_ERR) {
            continue;
        }
        const auto &status = *entry->fts_statp;
        if (S_ISDIR(status.st_mode) || status.st_nlink == 1 ||
            met.emplace(status.st_dev, status.st_ino).second) {
            counted.total += status.st_blocks * 512;
        }
    }
    ::fts_close(stream);
    return counted;
}

std::int64_t du(const std::vector<FileURL> &urls) {
    CommandAction action{FileURL("/usr/bin/du"), {"-s", "-c", "-x", "--block-size=1", "--"}};
    for (const auto &url : urls) {
        action.arguments.push_back(url.path());
    }
    // Complaints about what cannot be read come first.
    const auto output = ProcessCommandRunner().run(action, 60s).output;
    const auto end = output.rfind("\ttotal");
    const auto begin = output.rfind('\n', end) + 1;
    std::int64_t total = -1;
    if (end != std::string::npos) {
        std::from_chars(output.data() + begin, output.data() + end, total);
    }
    EXPECT_GE(total, 0) << output;
    return total;
}

/// A measurement whose test answers yes at the `last`th question.
struct Questioned {
    std::int64_t total;
    std::int64_t questions = 0;

    explicit Questioned(const std::vector<FileURL> &urls, std::int64_t last = 0) {
        const auto caller = std::this_thread::get_id();
        total = DiskUsage::allocatedSize(urls, [&] {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            return ++questions == last;
        });
    }
};

/// A chain of folders below `at`, each with `before` files made before the next folder and as many
/// after it, so that some stand on either side of it whatever the order of the listing.
void makeChain(const FileURL &at, int depth, const std::string &name, int before) {
    UniqueFD folder(::open(at.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int level = 0; level < depth && folder; ++level) {
        for (int file = 0; file < 2 * before; ++file) {
            if (file == before) {
                ::mkdirat(folder.get(), name.c_str(), 0700);
            }
            const UniqueFD opened(::openat(folder.get(), std::to_string(file).c_str(),
                                           O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            if (::write(opened.get(), "x", 1) != 1) {
                throw std::runtime_error("cannot make the chain");
            }
        }
        folder = UniqueFD(::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
}

/// Fills some folders of `tree` at random and returns them, with files and links beside them.
std::vector<FileURL> fillAtRandom(const TemporaryTree &tree, unsigned seed, unsigned entries) {
    std::mt19937 random(seed);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    std::vector<std::string> folders{"a", "b", "c"};
    std::vector<std::string> files{"file"};
    for (const auto *given : {"a", "b", "c"}) {
        tree.add({given, directory()});
    }
    tree.add({"file", bytes(1)});
    tree.add({"link", link("a")});
    std::vector<std::pair<std::string, mode_t>> modes;
    for (unsigned entry = 0; entry < entries; ++entry) {
        const auto path = fmt::format("{}/{}", folders[below(folders.size())], entry);
        switch (below(24)) {
        case 0:
        case 1:
        case 2:
            tree.add({path, directory()});
            folders.push_back(path);
            if (below(10) == 0) {
                constexpr mode_t closed[] = {0000, 0300, 0400, 0500};
                modes.emplace_back(path, closed[below(4)]);
            }
            break;
        case 3:
        case 4:
            tree.add({path, hardLink(files[below(files.size())])});
            break;
        case 5:
            tree.add({path, link(std::string(below(2) == 0 ? 10 : 200, 'l'))});
            break;
        case 6:
            EXPECT_EQ(::mknod((tree / path).path().c_str(), S_IFSOCK | 0600, 0), 0);
            break;
        case 7:
            EXPECT_EQ(::mkfifo((tree / path).path().c_str(), 0600), 0);
            break;
        case 8:
            tree.add({path, bytes(3)});
            EXPECT_EQ(::truncate((tree / path).path().c_str(), 1 << 20), 0);
            break;
        default:
            tree.add({path, bytes(below(20'000))});
            files.push_back(path);
        }
    }
    for (auto deepest = modes.rbegin(); deepest != modes.rend(); ++deepest) {
        EXPECT_EQ(::chmod((tree / deepest->first).path().c_str(), deepest->second), 0);
    }
    return {tree / "a", tree / "file", tree / "b", tree / "missing", tree / "link", tree / "c"};
}

TEST(DiskUsage, equalsDuAndAsksLikeAWalkOnOneThread) {
    for (const unsigned seed : {1U, 2U, 3U, 4U}) {
        inIsolatedProcess([&] {
            becomeOrdinaryUser(); // some folders cannot be read
            const bool isLarge = seed % 2 == 0;
            const TemporaryTree tree(isLarge ? inMemory : TemporaryTree::Medium::temporaryFolder,
                                     {});
            const auto urls = fillAtRandom(tree, seed, isLarge ? 5'000 : 400);
            const auto expected = walked(urls);
            SCOPED_TRACE(seed);
            EXPECT_EQ(du(urls), expected.total);
            EXPECT_EQ(DiskUsage::allocatedSize(urls), expected.total);
            const Questioned asked(urls);
            EXPECT_EQ(asked.total, expected.total);
            EXPECT_EQ(asked.questions, expected.visited / interval);
            const Questioned stopped(urls, 1);
            EXPECT_EQ(stopped.total,
                      expected.visited < interval ? expected.total : expected.beforeFirstQuestion);
        });
    }
}

TEST(DiskUsage, asksFirstAtThe2048thVisit) {
    struct Case {
        int folders;
        int files;
        std::vector<std::string> given;
        std::int64_t visits;
    };
    const Case cases[] = {
        {0, 2'045, {"t"}, 2'047},          {0, 2'046, {"t"}, 2'048},
        {1'022, 1, {"t"}, 2'047},          {1'023, 0, {"t"}, 2'048},
        {0, 2'044, {"t", "none"}, 2'047},  {0, 2'045, {"t", "none"}, 2'048},
        {511, 0, {"t", "t"}, 2'048},       {0, 2'047, {"t"}, 2'049},
        {0, 2'045, {"link", "t"}, 2'048},  {10, 1'013, {"link", "t", "t"}, 2'071},
        {0, 4'093, {"t"}, 2 * 2'048 - 1},  {0, 4'094, {"t"}, 2 * 2'048},
        {4'096, 0, {"t", "t"}, 8'194 * 2},
    };
    for (const auto &[folders, files, given, visits] : cases) {
        const TemporaryTree tree(inMemory, {{"t", directory()}, {"link", link("t")}});
        for (int folder = 0; folder < folders; ++folder) {
            tree.add({fmt::format("t/folder{}", folder), directory()});
        }
        for (int file = 0; file < files; ++file) {
            tree.add({fmt::format("t/{}", file), bytes(1)});
        }
        std::vector<FileURL> urls;
        for (const auto &name : given) {
            urls.push_back(tree / name);
        }
        const auto expected = walked(urls);
        ASSERT_EQ(expected.visited, visits);
        EXPECT_EQ(Questioned(urls).questions, visits / interval) << visits;
        const Questioned stopped(urls, 1);
        EXPECT_EQ(stopped.questions, visits < interval ? 0 : 1) << visits;
        EXPECT_EQ(stopped.total, visits < interval ? expected.total : expected.beforeFirstQuestion)
            << visits;
    }
}

TEST(DiskUsage, countsAHardLinkedFileOncePerCallAndEverythingElseAsOftenAsItIsGiven) {
    const TemporaryTree tree{
        {"a/x", bytes(5'000)},       {"a/y", hardLink("a/x")}, {"b/z", hardLink("a/x")},
        {"b/plain", bytes(100'000)}, {"link", link("b")},
    };
    const auto size = [&](const char *path) { return DiskUsage::allocatedSize(tree / path); };
    const auto together = [&](const std::vector<FileURL> &urls) {
        return DiskUsage::allocatedSize(urls);
    };
    const auto x = size("a/x");
    const auto folder = size("a") - x;
    ASSERT_GT(x, 0);
    EXPECT_EQ(size("b/z"), x);
    EXPECT_EQ(size("b"), folder + x + size("b/plain"));
    EXPECT_EQ(together({tree / "a/x", tree / "b/z"}), x);
    EXPECT_EQ(together({tree / "a", tree / "b"}), 2 * folder + x + size("b/plain"));
    EXPECT_EQ(together({tree / "a", tree / "a"}), 2 * folder + x);
    EXPECT_EQ(together({tree / "b/plain", tree / "b/plain"}), 2 * size("b/plain"));
    EXPECT_LT(size("link"), size("b/plain"));

    EXPECT_EQ(together({}), 0);
    const auto path = tree.root().path();
    for (const auto &none : {path + "/none", path + "/a/x/none", path + std::string("/a\0b", 4),
                             path + "/" + std::string(300, 'n'), path + std::string(5'000, '/')}) {
        EXPECT_EQ(together({FileURL(none + "/x"), tree / "a/x"}), x) << none;
    }
}

TEST(DiskUsage, countsHardLinksOnceWhenSeveralThreadsMeetThem) {
    const TemporaryTree tree(inMemory, {});
    constexpr int files = 4'000;
    for (int file = 0; file < files; ++file) {
        const auto name = fmt::format("0/{}/{}", file % 40, file);
        tree.add({name, bytes(1)});
        for (int copy = 1; copy <= 4; ++copy) {
            tree.add({fmt::format("{}/{}/{}", copy, file % 40, file), hardLink(name)});
        }
    }
    const auto one = DiskUsage::allocatedSize(tree / "0/0/0");
    const auto expected = walked({tree.root()}).total;
    ASSERT_GE(expected, files * one);
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(DiskUsage::allocatedSize(tree.root()), expected);
    }
}

TEST(DiskUsage, staysOnTheFileSystemAndOutOfCircles) {
    inIsolatedProcess([] {
        if (!enterMountNamespace()) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        const TemporaryTree tree{
            {"t/file", bytes(10'000)},  {"t/mounted", directory()},
            {"t/bound", directory()},   {"t/sub/self", directory()},
            {"t/sub/x", bytes(1)},      {"t/sub/above", directory()},
            {"t/boundFile", bytes(1)},  {"t/loop/a/b", directory()},
            {"elsewhere/in", bytes(1)}, {"elsewhere/deep/er", bytes(9'000)},
        };
        const auto bind = [&](const FileURL &what, const char *where) {
            ASSERT_EQ(::mount(what.path().c_str(), (tree / where).path().c_str(), nullptr, MS_BIND,
                              nullptr),
                      0);
        };
        ASSERT_EQ(::mount("none", (tree / "t/mounted").path().c_str(), "tmpfs", 0, nullptr), 0);
        tree.add({"t/mounted/huge", bytes(1'000'000)});
        bind(tree / "elsewhere", "t/bound");
        bind(tree / "elsewhere/in", "t/boundFile");
        bind(tree / "t", "t/sub/self");
        bind(tree.root(), "t/sub/above"); // leads back to t by a folder that is no mount point
        bind(tree / "t/loop", "t/loop/a/b");
        for (const auto *given : {"t", "t/mounted", "t/sub", "t/sub/self", "t/loop", "t/bound"}) {
            EXPECT_EQ(DiskUsage::allocatedSize(tree / given), walked({tree / given}).total)
                << given;
        }
        for (const auto *mount :
             {"t/loop/a/b", "t/sub/above", "t/sub/self", "t/boundFile", "t/bound", "t/mounted"}) {
            ::umount2((tree / mount).path().c_str(), MNT_DETACH);
        }
    });
}

TEST(DiskUsage, measuresDeepAndBroadTreesWithFewDescriptorsAndLittleStack) {
    const TemporaryTree tree(inMemory, {{"long", directory()}, {"deep", directory()}});
    makeChain(tree / "long", 45, std::string(200, 'd'), 1); // twice PATH_MAX
    makeChain(tree / "deep", 1'500, "d", 1);
    for (int folder = 0; folder < 300; ++folder) {
        tree.add({fmt::format("broad/{}/sub/{}", folder, folder), bytes(1)});
    }
    const std::vector<FileURL> urls{tree / "long", tree / "broad", tree / "deep"};
    inIsolatedProcess([&] {
        const auto expected = du(urls);
        limitDescriptors(16);
        std::jthread([&] { // a thread's stack is smaller than the process's
            EXPECT_EQ(DiskUsage::allocatedSize(urls), expected);
        })
            .join();
    });
    inIsolatedProcess([&] {
        const auto expected = du({tree / "long"});
        limitDescriptors(1024);
        std::vector<UniqueFD> others; // take more than was left to them
        for (UniqueFD one(::dup(0)); one; one = UniqueFD(::dup(0))) {
            others.push_back(std::move(one));
        }
        others.resize(others.size() - 2);
        EXPECT_EQ(DiskUsage::allocatedSize(tree / "long"), expected);
    });
    SecureDeleter().deletePermanently(tree / "deep");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

TEST(DiskUsage, aFolderOf200000EntriesTakesLittleMemoryAndIsLeftSoon) {
    constexpr int entries = 200'000;
    constexpr int perPage = 100;
    const TemporaryTree tree(inMemory, {{"t", directory()}});
    const UniqueFD folder(::open((tree / "t").path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int entry = 0; entry < entries; ++entry) {
        const UniqueFD file(::openat(folder.get(), fmt::format("an entry called {}", entry).c_str(),
                                     O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        ASSERT_TRUE(file);
        if (entry % perPage == 0) {
            ASSERT_EQ(::write(file.get(), "x", 1), 1);
        }
    }
    const auto expected = walked({tree / "t"}).total;
    inIsolatedProcess([&] {
        if (!isSanitized) { // they reserve terabytes
            std::size_t pages = 0;
            ASSERT_TRUE(std::ifstream("/proc/self/statm") >> pages);
            // Less than the entries' names, let alone a record for each.
            const auto most = pages * static_cast<std::size_t>(::getpagesize()) + 2'000'000;
            const rlimit limit{most, most};
            ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
        }
        EXPECT_EQ(DiskUsage::allocatedSize(tree / "t"), expected);
    });
    EXPECT_EQ(DiskUsage::allocatedSize(tree / "t"), expected);
    for (const std::int64_t last : {2, 5}) {
        const Questioned stopped({tree / "t"}, last);
        EXPECT_EQ(stopped.questions, last);
        EXPECT_LT(stopped.total, expected / 2);
    }
}

TEST(DiskUsage, aListingThatBreaksOffLosesItsOwnRestOnly) {
    const TemporaryTree tree(inMemory, {{"t/a/x", bytes(1)}, {"t/z/x", bytes(1)}});
    for (int file = 0; file < 5'000; ++file) {
        tree.add({fmt::format("t/broken/{}", file), bytes(1)});
    }
    const auto whole = DiskUsage::allocatedSize(tree / "t");
    const auto folder = DiskUsage::allocatedSize(tree / "t/broken");
    struct stat status {};
    ASSERT_EQ(::stat((tree / "t/broken").path().c_str(), &status), 0);
    brokenFolder = status.st_ino;
    const auto listed = DiskUsage::allocatedSize(tree / "t/broken");
    EXPECT_EQ(DiskUsage::allocatedSize(tree / "t"), whole - folder + listed);
    brokenFolder = 0;
    EXPECT_GT(listed, 0);
    EXPECT_LT(listed, folder);
}

TEST(DiskUsage, findsItsWayBackWhenAFolderIsMovedWhileItIsInside) {
    // Fifty files on the way into each level: the first question comes deep down, where the folders
    // above are closed already and are found again through the moved one.
    const TemporaryTree tree(inMemory, {{"t", directory()}, {"elsewhere", directory()}});
    makeChain(tree / "t", 45, "d", 50);
    std::string upper = "t";
    for (int level = 0; level < 20; ++level) {
        upper += "/d";
    }
    const auto expected = du({tree / "t"});
    int questions = 0;
    const auto total = DiskUsage::allocatedSize(tree / "t", [&] {
        if (++questions == 1) {
            std::filesystem::rename((tree / upper).path(), (tree / "elsewhere/d").path());
        }
        return false;
    });
    EXPECT_EQ(total, expected);
}

TEST(DiskUsage, leavesNoTraceOfItsVisit) {
    const TemporaryTree tree{{"t/a/x", bytes(1)}, {"t/link", link("a")}};
    const auto accessed = [&](const char *path) {
        struct stat status {};
        EXPECT_EQ(::lstat((tree / path).path().c_str(), &status), 0);
        return status.st_atim.tv_sec;
    };
    constexpr timespec longAgo[] = {{1'000'000, 0}, {0, UTIME_OMIT}};
    for (const auto *path : {"t", "t/a"}) {
        ASSERT_EQ(::utimensat(AT_FDCWD, (tree / path).path().c_str(), longAgo, 0), 0);
    }
    EXPECT_GT(DiskUsage::allocatedSize(tree / "t"), 0);
    EXPECT_EQ(accessed("t"), 1'000'000);
    EXPECT_EQ(accessed("t/a"), 1'000'000);
}

TEST(DiskUsage, manyMeasurementsAtOnceDoNotDisturbEachOther) {
    const TemporaryTree tree(inMemory, {});
    for (int folder = 0; folder < 60; ++folder) {
        for (int file = 0; file < 20 * (folder % 10); ++file) {
            tree.add({fmt::format("{}/{}/{}", folder % 4, folder, file), bytes(1)});
        }
    }
    std::vector<std::vector<FileURL>> worlds{{tree.root()}, {tree / "missing"}};
    for (const auto *name : {"1", "2", "3"}) {
        worlds.push_back({tree / name});
        worlds.push_back({tree / name, tree / "0", tree / "1"});
    }
    inIsolatedProcess([&] {
        limitDescriptors(64);
        std::vector<std::int64_t> expected;
        for (const auto &urls : worlds) {
            expected.push_back(walked(urls).total);
        }
        std::vector<std::jthread> callers;
        for (std::size_t caller = 0; caller < 16; ++caller) {
            callers.emplace_back([&, caller] {
                for (std::size_t round = 0; round < 40; ++round) {
                    const auto which = (caller + round) % worlds.size();
                    if (round % 8 == 7) {
                        EXPECT_LE(Questioned(worlds[which], 2).total, expected[which]);
                    } else {
                        EXPECT_EQ(Questioned(worlds[which]).total, expected[which]);
                    }
                }
            });
        }
    });
}

TEST(DiskUsage, passesOnWhatTheTestThrowsAndGoesOn) {
    const TemporaryTree tree(inMemory, {});
    for (int file = 0; file < 20'000; ++file) {
        tree.add({fmt::format("{}/{}", file % 200, file), bytes(1)});
    }
    const auto expected = walked({tree.root()}).total;
    for (const int last : {1, 2, 6, 9}) {
        int questions = 0;
        const auto measure = [&] {
            DiskUsage::allocatedSize(tree.root(), [&]() -> bool {
                if (++questions == last) {
                    throw std::domain_error("enough");
                }
                return false;
            });
        };
        EXPECT_THROW(measure(), std::domain_error) << last;
        EXPECT_EQ(questions, last);
        EXPECT_EQ(DiskUsage::allocatedSize(tree.root()), expected);
    }
}

} // namespace
} // namespace klarbox::test
