#include "KlarboxKit/Safety/DiskUsage.hpp"

#include "Tests/Support/HardTrees.hpp"
#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/Sanitizers.hpp"

#include <atomic>
#include <cerrno>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <fts.h>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

/// The listing of the folder with this inode breaks off after its first lot.
std::atomic<std::uint64_t> brokenFolder = 0;

} // namespace

extern "C" ssize_t getdents64(int fd, void *buffer, std::size_t size) noexcept {
    struct stat status {};
    if (brokenFolder != 0 && ::lseek(fd, 0, SEEK_CUR) != 0 && ::fstat(fd, &status) == 0 &&
        status.st_ino == brokenFolder) {
        errno = EIO;
        return -1;
    }
    return ::syscall(SYS_getdents64, fd, buffer, size);
}

namespace klarbox::test {
namespace {

namespace fs = std::filesystem;

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
    FTS *stream = ::fts_open(paths.data(), FTS_PHYSICAL | FTS_XDEV, nullptr);
    while (const auto *entry = ::fts_read(stream)) {
        if (++counted.visited == interval) {
            counted.beforeFirstQuestion = counted.total;
        }
        const auto info = entry->fts_info;
        if (info == FTS_DP || info == FTS_DNR || info == FTS_NS || info == FTS_ERR) {
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

/// Expects the total and the questions of a walk on one thread. Answers its visits.
std::int64_t expectLikeOneThread(const std::vector<FileURL> &urls) {
    const auto expected = walked(urls);
    const Questioned asked(urls);
    EXPECT_EQ(asked.total, expected.total);
    EXPECT_EQ(asked.questions, expected.visited / interval);
    const Questioned stopped(urls, 1);
    const bool isAsked = expected.visited >= interval;
    EXPECT_EQ(stopped.questions, isAsked ? 1 : 0);
    EXPECT_EQ(stopped.total, isAsked ? expected.beforeFirstQuestion : expected.total);
    return expected.visited;
}

/// Fills some folders of `tree` at random and returns them, with files and links beside them.
std::vector<FileURL> fillAtRandom(const TemporaryTree &tree, unsigned seed, unsigned entries) {
    std::mt19937 random(seed);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    std::vector<std::string> folders{"a", "b", "c"};
    std::vector<std::string> files{"file"};
    for (const auto &given : folders) {
        tree.add({given, directory()});
    }
    tree.add({"file", bytes(1)});
    tree.add({"link", link("a")});
    for (unsigned entry = 0; entry < entries; ++entry) {
        const auto path = fmt::format("{}/{}", folders[below(folders.size())], entry);
        const auto kind = below(24);
        if (kind < 3) {
            tree.add({path, directory()});
            folders.push_back(path);
        } else if (kind < 5) {
            tree.add({path, hardLink(files[below(files.size())])});
        } else if (kind == 5) {
            tree.add({path, link(std::string(200, 'l'))}); // takes a block of its own
        } else if (kind == 6) {
            EXPECT_EQ(::mkfifo((tree / path).path().c_str(), S_IRUSR), 0);
        } else {
            tree.add({path, bytes(below(20'000))});
            fs::resize_file((tree / path).path(), 1 << 20); // most of it a hole
            files.push_back(path);
        }
    }
    constexpr fs::perms closed[] = {fs::perms(0), fs::perms(0300), fs::perms(0400)};
    for (; folders.size() > 3; folders.pop_back()) {
        if (below(100) == 0) {
            fs::permissions((tree / folders.back()).path(), closed[below(3)]);
        }
    }
    return {tree / "a", tree / "file", tree / "b", tree / "missing", tree / "link", tree / "c"};
}

TEST(DiskUsage, countsAndAsksLikeAWalkOnOneThread) {
    for (const unsigned seed : {1U, 2U, 3U, 4U}) {
        inIsolatedProcess([seed] {
            becomeOrdinaryUser(); // some folders cannot be read
            const bool isLarge = seed % 2 == 0;
            const TemporaryTree tree(isLarge ? inMemory : TemporaryTree::Medium::temporaryFolder,
                                     {});
            SCOPED_TRACE(seed);
            expectLikeOneThread(fillAtRandom(tree, seed, isLarge ? 5'000 : 400));
        });
    }
}

TEST(DiskUsage, asksFirstAtThe2048thVisit) {
    const struct {
        int folders;
        int files;
        std::vector<std::string> given;
        std::int64_t visits;
    } cases[] = {
        {0, 2'045, {"t"}, 2'047},         {0, 2'046, {"t"}, 2'048},
        {1'022, 1, {"t"}, 2'047},         {1'023, 0, {"t"}, 2'048},
        {0, 2'045, {"t", "none"}, 2'048}, {511, 0, {"t", "t"}, 2'048},
        {0, 2'045, {"link", "t"}, 2'048}, {0, 4'093, {"t"}, 2 * 2'048 - 1},
        {0, 4'094, {"t"}, 2 * 2'048},     {4'096, 0, {"t", "t"}, 8'194 * 2},
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
        EXPECT_EQ(expectLikeOneThread(urls), visits);
    }
}

TEST(DiskUsage, countsAHardLinkedFileOncePerCallAndEverythingElseAsOftenAsItIsGiven) {
    const TemporaryTree tree{
        {"a/x", bytes(5'000)},       {"a/y", hardLink("a/x")}, {"b/z", hardLink("a/x")},
        {"b/plain", bytes(100'000)}, {"link", link("b")},
    };
    const auto size = [&](std::initializer_list<std::string_view> names) {
        std::vector<FileURL> urls;
        for (const auto name : names) {
            urls.push_back(tree / name);
        }
        return DiskUsage::allocatedSize(urls);
    };
    const auto x = size({"a/x"});
    const auto folder = size({"a"}) - x;
    const auto plain = size({"b/plain"});
    ASSERT_GT(x, 0);
    EXPECT_EQ(size({"b"}), folder + x + plain);
    EXPECT_EQ(size({"a/x", "b/z"}), x);
    EXPECT_EQ(size({"a", "b"}), 2 * folder + x + plain);
    EXPECT_EQ(size({"a", "a"}), 2 * folder + x);
    EXPECT_EQ(size({"b/plain", "b/plain"}), 2 * plain);
    EXPECT_LT(size({"link"}), plain);
    EXPECT_EQ(size({}), 0);
    for (const auto &none : {std::string("a/x/none"), std::string("a\0b", 3), std::string(300, 'n'),
                             std::string(5'000, '/') + "x"}) {
        EXPECT_EQ(size({none, "a/x"}), x) << none;
    }
}

TEST(DiskUsage, countsHardLinksOnceWhenSeveralThreadsMeetThem) {
    const TemporaryTree tree(inMemory, {});
    for (int file = 0; file < 4'000; ++file) {
        const auto path = fmt::format("{}/{}", file % 40, file);
        tree.add({"0/" + path, bytes(1)});
        for (int copy = 1; copy <= 4; ++copy) {
            tree.add({fmt::format("{}/{}", copy, path), hardLink("0/" + path)});
        }
    }
    const auto expected = walked({tree.root()}).total;
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(DiskUsage::allocatedSize(tree.root()), expected);
    }
}

TEST(DiskUsage, staysOnTheFileSystemAndOutOfCircles) {
    const TemporaryTree tree{
        {"t/file", bytes(10'000)},    {"t/mounted", directory()},
        {"t/bound", directory()},     {"t/sub/self", directory()},
        {"t/sub/x", bytes(1)},        {"t/sub/above", directory()},
        {"t/boundFile", bytes(1)},    {"t/loop/a/b", directory()},
        {"elsewhere/in", bytes(1)},   {"elsewhere/deep/er", bytes(9'000)},
        {"t/loop/self", directory()},
    };
    inIsolatedProcess([&] {
        if (!enterMountNamespace()) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        ASSERT_TRUE(mountOn(tree / "t/mounted"));
        tree.add({"t/mounted/huge", bytes(1'000'000)});
        ASSERT_TRUE(bindOn(tree / "elsewhere", tree / "t/bound"));
        ASSERT_TRUE(bindOn(tree / "elsewhere/in", tree / "t/boundFile"));
        ASSERT_TRUE(bindOn(tree / "t", tree / "t/sub/self"));
        // Leads back to t by a folder that is no mount point.
        ASSERT_TRUE(bindOn(tree.root(), tree / "t/sub/above"));
        ASSERT_TRUE(bindOn(tree / "t/loop", tree / "t/loop/a/b"));
        ASSERT_TRUE(bindOn(tree / "t/loop", tree / "t/loop/self"));
        for (const auto *given : {"t", "t/mounted", "t/sub", "t/sub/self", "t/loop", "t/bound"}) {
            EXPECT_EQ(DiskUsage::allocatedSize(tree / given), walked({tree / given}).total)
                << given;
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
    const auto expected = walked({tree.root()}).total;
    inIsolatedProcess([&] {
        limitDescriptors(16);
        // A thread's stack is smaller than the process's.
        std::jthread([&] { EXPECT_EQ(DiskUsage::allocatedSize(tree.root()), expected); }).join();
    });
    inIsolatedProcess([&] {
        limitDescriptors(1024);
        std::vector<UniqueFD> others; // take more than was left to them
        for (UniqueFD one(::dup(0)); one; one = UniqueFD(::dup(0))) {
            others.push_back(std::move(one));
        }
        others.resize(others.size() - 2);
        EXPECT_EQ(DiskUsage::allocatedSize(tree.root()), expected);
    });
}

TEST(DiskUsage, aFolderOf200000EntriesTakesLittleMemoryAndIsLeftSoon) {
    const TemporaryTree tree(inMemory, {{"t", directory()}});
    const auto name = (tree / "t/an entry called ").path();
    for (int entry = 0; entry < 200'000; ++entry) {
        std::ofstream(name + std::to_string(entry)) << (entry % 100 == 0 ? "x" : "");
    }
    struct stat folder {};
    ASSERT_EQ(::stat((tree / "t").path().c_str(), &folder), 0);
    // Added up without a walk, which would leave room behind.
    const auto expected =
        folder.st_blocks * 512 + 2'000 * DiskUsage::allocatedSize(FileURL(name + "0"));
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
    const Questioned stopped({tree / "t"}, 5);
    EXPECT_EQ(stopped.questions, 5);
    EXPECT_LT(stopped.total, expected / 2);
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
    const auto expected = walked({tree / "t"}).total;
    int questions = 0;
    const auto total = DiskUsage::allocatedSize(tree / "t", [&] {
        if (++questions == 1) {
            fs::rename((tree / "t/d/d/d/d/d/d/d/d/d/d/d/d").path(), (tree / "elsewhere/d").path());
        }
        return false;
    });
    EXPECT_EQ(total, expected);
}

TEST(DiskUsage, manyMeasurementsAtOnceDoNotDisturbEachOther) {
    const TemporaryTree tree(inMemory, {});
    for (int file = 0; file < 6'000; ++file) {
        tree.add({fmt::format("{}/{}/{}", file % 4, file % 60, file), bytes(1)});
    }
    inIsolatedProcess([&] {
        limitDescriptors(64);
        std::vector<std::pair<std::vector<FileURL>, std::int64_t>> worlds;
        for (const auto *name : {"", "missing", "1", "2", "3"}) {
            for (const auto &urls : {std::vector{tree / name}, {tree / name, tree / "0"}}) {
                worlds.emplace_back(urls, walked(urls).total);
            }
        }
        std::vector<std::jthread> callers;
        for (std::size_t caller = 0; caller < 16; ++caller) {
            callers.emplace_back([&, caller] {
                for (std::size_t round = 0; round < 40; ++round) {
                    const auto &[urls, expected] = worlds[(caller + round) % worlds.size()];
                    if (round % 8 == 7) {
                        EXPECT_LE(Questioned(urls, 2).total, expected);
                    } else if (round % 8 == 3) {
                        auto left = caller % 2;
                        const auto failing = [&]() -> bool {
                            return left-- == 0 ? throw std::domain_error("enough") : false;
                        };
                        EXPECT_THROW(DiskUsage::allocatedSize(tree.root(), failing),
                                     std::domain_error);
                    } else {
                        EXPECT_EQ(Questioned(urls).total, expected);
                    }
                }
            });
        }
    });
}

} // namespace
} // namespace klarbox::test
