#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"
#include "KlarboxKit/Safety/TrashFolder.hpp"

#include "Tests/Support/HardTrees.hpp"
#include "Tests/Support/IsolatedProcess.hpp"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <set>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// As on a file system that knows no way to rename without replacing.
std::atomic<bool> renamesPlainly = false;

/// What somebody puts into the place of the next folder that is made.
std::string exchangedFolder;

} // namespace

extern "C" int renameat2(int from, const char *name, int to, const char *newName,
                         unsigned flags) noexcept {
    if (renamesPlainly && flags != 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_renameat2, from, name, to, newName, flags));
}

extern "C" int mkdirat(int at, const char *name, mode_t mode) noexcept {
    const auto code = static_cast<int>(::syscall(SYS_mkdirat, at, name, mode));
    if (code == 0 && !exchangedFolder.empty()) {
        ::renameat2(AT_FDCWD, exchangedFolder.c_str(), at, name, RENAME_EXCHANGE);
        exchangedFolder.clear();
    }
    return code;
}

namespace klarbox::test {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

/// The Cocoa and the POSIX code of the error that moving to the Trash of `home` ends with, which
/// says `says`; zeros for none.
std::pair<int, int> trashed(const FileURL &url, const FileURL &home, std::string_view says = "") {
    try {
        FileSystemRemover(home).moveToTrash(url);
        return {};
    } catch (const PlatformError &error) {
        EXPECT_EQ(error.domain(), PlatformError::Domain::cocoa);
        EXPECT_THAT(error.message(), HasSubstr(says));
        return {error.code(), error.cause() == nullptr ? 0 : error.cause()->code()};
    }
}

const std::pair<int, int> moved;

unsigned modeOf(const FileURL &url) {
    return static_cast<unsigned>(std::filesystem::symlink_status(url.path()).permissions());
}

TEST(FileSystemRemover, numbersNamesBeforeTheirExtension) {
    const std::string longest(255, 'n');
    std::string umlauts; // the cut falls into the middle of the last one
    while (umlauts.size() < 254) {
        umlauts += "ü";
    }
    const std::pair<std::string, std::string> cases[] = {
        {"notes.txt", "notes 2.txt"},
        {"com.example.app", "com.example 2.app"},
        {"folder", "folder 2"},
        {".hidden", ".hidden 2"},
        {".hidden.txt", ".hidden 2.txt"},
        {"dot.", "dot. 2"},
        {longest, std::string(253, 'n') + " 2"},
        {umlauts, umlauts.substr(0, 252) + " 2"},
        {"x." + longest.substr(2), "x." + longest.substr(4) + " 2"},
    };
    for (const auto &[name, numbered] : cases) {
        EXPECT_EQ(numberedName(name, 2), numbered) << name;
    }
}

void expectWholeMoves() {
    const TemporaryTree tree{
        {"home/a/notes.txt", text("1")},      {"home/b/notes.txt", text("2")},
        {"home/c/notes.txt/deep", text("3")}, {"home/link", link("../outside")},
        {"outside/kept", text("kept")},       {"home/names/\xff\n", text("4")},
    };
    const auto home = tree / "home";
    const auto outside = manifest(tree / "outside");
    for (const auto *item : {"a/notes.txt", "b/notes.txt", "c/notes.txt", "link", "names/\xff\n"}) {
        EXPECT_EQ(trashed(home.appending(item), home), moved) << item;
        EXPECT_FALSE(FileManager::type(home.appending(item))) << item;
    }
    const auto trash = home.appending(".Trash");
    EXPECT_THAT(FileManager::contentsOfDirectory(trash),
                UnorderedElementsAre("notes.txt", "notes 2.txt", "notes 3.txt", "link", "\xff\n"));
    EXPECT_EQ(FileManager::contents(trash.appending("notes.txt")), "1");
    EXPECT_EQ(FileManager::contents(trash.appending("notes 2.txt")), "2");
    EXPECT_EQ(FileManager::contents(trash.appending("notes 3.txt/deep")), "3");
    EXPECT_EQ(FileManager::type(trash.appending("link")), FileManager::FileType::symbolicLink);
    EXPECT_EQ(modeOf(trash), 0700U);
    EXPECT_EQ(manifest(tree / "outside"), outside);
    // What cannot be moved leaves nothing behind.
    const auto before = manifest(trash);
    EXPECT_EQ(trashed(trash, home), std::pair(int(PlatformError::fileWriteUnknown), EINVAL));
    EXPECT_EQ(manifest(trash), before);
}

void expectConcurrentMoves() {
    constexpr int each = 50;
    const TemporaryTree tree{{"home", directory()}};
    const auto home = tree / "home";
    std::vector<std::jthread> movers;
    for (int mover = 0; mover < 4; ++mover) {
        movers.emplace_back([&, mover] {
            for (int item = mover * each; item < (mover + 1) * each; ++item) {
                const auto cache = fmt::format("home/{}/cache", item);
                tree.add({cache, text(std::to_string(item))});
                EXPECT_EQ(trashed(tree / cache, home), moved);
            }
        });
    }
    movers.clear();
    std::set<std::string> contents;
    for (const auto &item : FS::children(home.appending(".Trash"))) {
        contents.insert(FileManager::contents(item));
    }
    EXPECT_EQ(contents.size(), 4U * each);
}

TEST(FileSystemRemover, movesWholeItemsAndReplacesNothing) {
    for (const bool plainly : {false, true}) {
        renamesPlainly = plainly;
        expectWholeMoves();
        expectConcurrentMoves();
    }
    renamesPlainly = false;
}

TEST(FileSystemRemover, goesOnWithTheNumbersOfAName) {
    const TemporaryTree tree{{"home/.Trash/x 11", text("somebody's")}};
    const auto home = tree / "home";
    const FileSystemRemover remover(home);
    const auto trash = [&](const std::string &folder) {
        tree.add({folder + "/x", text(folder)});
        remover.moveToTrash(PinnedEntry::open(tree / (folder + "/x")));
    };
    for (int i = 1; i <= 12; ++i) {
        trash(fmt::format("home/{}", i));
    }
    const std::pair<const char *, int> expected[] = {
        {"x", 1}, {"x 10", 10}, {"x 12", 11}, {"x 13", 12}};
    for (const auto &[name, from] : expected) {
        EXPECT_EQ(FileManager::contents(home.appending(".Trash").appending(name)),
                  fmt::format("home/{}", from));
    }
    EXPECT_EQ(FileManager::contents(home.appending(".Trash/x 11")), "somebody's");
    // Emptied or taken away in between, it is found or made again.
    const auto folder = PinnedFolder::resolving(home);
    for (const auto *name : {"a", "b"}) {
        tree.add({fmt::format("home/{}", name), text(name)});
        remover.moveToTrash({.folder = folder, .name = name});
        EXPECT_EQ(FileManager::contents(home.appending(".Trash").appending(name)), name);
        std::filesystem::remove_all(home.appending(".Trash").path());
    }
}

TEST(FileSystemRemover, saysWhyAnItemStaysAndLeavesItWhole) {
    inIsolatedProcess([] {
        becomeOrdinaryUser();
        const TemporaryTree tree{
            {"home/.Trash", directory()},
            {"home/readOnly/item", bytes(1)},
            {"home/readOnly", directory(), std::nullopt, 0500},
            {"linked/item", bytes(1)},
            {"linked/.Trash", link("Documents")},
            {"linked/Documents", directory()},
            {"dangling/item", bytes(1)},
            {"dangling/.Trash", link("nowhere")},
            {"occupied/item", bytes(1)},
            {"occupied/.Trash", bytes(1)},
        };
        const struct {
            const char *item;
            const char *home;
            int code;
            int cause;
            const char *says;
        } cases[] = {
            {"home/readOnly/item", "home", PlatformError::fileWriteNoPermission, EACCES,
             "“item” couldn’t be moved to the Trash. Permission denied."},
            {"home/none", "home", PlatformError::fileNoSuchFile, ENOENT,
             "“none” couldn’t be moved to the Trash. No such file or directory."},
            {"linked/item", "linked", PlatformError::fileWriteNoPermission, EPERM,
             "/linked/Documents”, which is protected."},
            {"dangling/item", "dangling", PlatformError::fileNoSuchFile, ENOENT,
             "“item” couldn’t be moved to the Trash. The folder “.Trash” couldn’t be used. No such "
             "file or directory."},
            {"occupied/item", "occupied", PlatformError::fileWriteUnknown, ENOTDIR, "“.Trash”"},
        };
        const auto before = manifest(tree.root());
        for (const auto &[item, home, code, cause, says] : cases) {
            EXPECT_EQ(trashed(tree / item, tree / home, says), std::pair(code, cause)) << item;
        }
        try {
            FileSystemRemover(tree / "home").deletePermanently(tree / "home/readOnly/item");
            ADD_FAILURE() << "deleted";
        } catch (const PlatformError &error) {
            EXPECT_EQ(error.code(), PlatformError::fileWriteNoPermission);
            EXPECT_EQ(error.message(), "“item” couldn’t be removed. Permission denied.");
        }
        EXPECT_EQ(manifest(tree.root()), before);
    });
}

TEST(FileSystemRemover, makesATrashInAHomeThatItMayOnlyWriteTo) {
    const TemporaryTree tree{{"own/item", bytes(1)}, {"shared/item", bytes(1)}};
    for (const auto &[folder, mode] : {std::pair("", 0755U), {"own", 0300U}, {"shared", 0777U}}) {
        std::filesystem::permissions((tree / folder).path(), std::filesystem::perms(mode));
    }
    ASSERT_TRUE(!isRoot() || ::chown((tree / "own").path().c_str(), 65534, 65534) == 0);
    inIsolatedProcess([&] {
        becomeOrdinaryUser(); // to whom the second does not belong
        for (const auto *home : {"own", "shared"}) {
            EXPECT_EQ(trashed((tree / home).appending("item"), tree / home), moved) << home;
        }
    });
}

TEST(FileSystemRemover, givesNobodyAFolderThatItDidNotMake) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root gives folders away";
    }
    const TemporaryTree tree{{"home/secret/key", bytes(1)}, {"home/item", bytes(1)}};
    ASSERT_EQ(::chown((tree / "home").path().c_str(), 12345, 12345), 0);
    exchangedFolder = (tree / "home/secret").path();
    EXPECT_EQ(trashed(tree / "home/item", tree / "home", "isn’t safe from other users"),
              std::pair(int(PlatformError::fileWriteNoPermission), EPERM));
    struct stat status {};
    ASSERT_EQ(::stat((tree / "home/.Trash/key").path().c_str(), &status), 0) << "not exchanged";
    ASSERT_EQ(::stat((tree / "home/.Trash").path().c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0U);
    // Nor does anybody choose by a link, or by what it leads to, where root moves things.
    tree.add({"mine/item", bytes(1)});
    tree.add({"theirs/item", bytes(1)});
    tree.add({"theirs/.Trash", link("../mine")});
    tree.add({"mine/.Trash", link("../theirs")});
    ASSERT_EQ(::lchown((tree / "theirs/.Trash").path().c_str(), 12345, 12345), 0);
    ASSERT_EQ(::chown((tree / "theirs").path().c_str(), 12345, 12345), 0);
    for (const auto *each : {"mine", "theirs"}) {
        EXPECT_EQ(trashed((tree / each).appending("item"), tree / each, "isn’t safe"),
                  std::pair(int(PlatformError::fileWriteNoPermission), EPERM));
    }
}

TEST(FileSystemRemover, usesNoTrashOfAVolumeThatAStrangerOwns) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root gives folders away";
    }
    const TemporaryTree tree{{"theirs", directory()}, {"inside", directory()}};
    inIsolatedProcess([&] {
        ASSERT_TRUE(enterMountNamespace());
        const auto own = fmt::format("/.Trashes/{}", ::getuid());
        for (const auto &[disk, theirs] : {std::pair("theirs"s, "/.Trashes"s), {"inside"s, own}}) {
            ASSERT_TRUE(mountOn(tree / disk));
            tree.add({disk + own, directory()});
            tree.add({disk + "/.Trashes", directory(), std::nullopt, 01333});
            tree.add({disk + "/item", bytes(1)});
            ASSERT_EQ(::chown((tree / (disk + theirs)).path().c_str(), 12345, 12345), 0);
            EXPECT_EQ(trashed(tree / (disk + "/item"), tree.root(), "isn’t safe from other users"),
                      std::pair(int(PlatformError::fileWriteNoPermission), EPERM));
            EXPECT_TRUE(FileManager::exists(tree / (disk + "/item"))) << disk;
        }
    });
}

TEST(FileSystemRemover, anotherVolumeHasATrashOfItsOwn) {
    const TemporaryTree tree{
        {"home/mounted", directory()}, {"disk", directory()},    {"unsafe", directory()},
        {"linked", directory()},       {"full", directory()},    {"bound", directory()},
        {"elsewhere/item", bytes(1)},  {"layered", directory()},
    };
    inIsolatedProcess([&] {
        if (!enterMountNamespace()) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        const auto home = tree / "home";
        const auto own = fmt::format(".Trashes/{}", ::getuid());
        for (const auto *name : {"disk", "unsafe", "linked", "home/mounted"}) {
            ASSERT_TRUE(mountOn(tree / name));
        }
        ASSERT_TRUE(mountOn(tree / "full", "nr_inodes=3"));
        tree.add({"disk/a/b/item", text("moved")});
        EXPECT_EQ(trashed(tree / "disk/a/b/item", home), moved);
        // A home on that disk, by a link to it, has its own.
        tree.add({"disk/ann/item", bytes(1)});
        tree.add({"ann", link("disk/ann")});
        EXPECT_EQ(trashed(tree / "disk/ann/item", tree / "ann"), moved);
        EXPECT_TRUE(FileManager::exists(tree / "disk/ann/.Trash/item"));
        // Where the Trash is a link, what lies on the disk that it leads to is moved there.
        tree.add({"disk/far/notes", bytes(1)});
        tree.add({"unsafe/bob/.Trash", link("../../disk/far")});
        for (const auto *item : {"disk/c/notes", "unsafe/bob/notes"}) {
            tree.add({item, bytes(1)});
            EXPECT_EQ(trashed(tree / item, tree / "unsafe/bob"), moved);
        }
        EXPECT_TRUE(FileManager::exists(tree / "disk/far/notes 2"));
        EXPECT_TRUE(FileManager::exists(tree / ("unsafe/" + own + "/notes")));
        std::filesystem::remove_all((tree / "unsafe/.Trashes").path());
        EXPECT_EQ(FileManager::contents(tree / ("disk/" + own + "/item")), "moved");
        EXPECT_EQ(modeOf(tree / "disk/.Trashes"), 01333U);
        EXPECT_EQ(modeOf(tree / ("disk/" + own)), 0700U);

        // The same file system in a second place: a move from there to the home's Trash is none.
        ASSERT_TRUE(bindOn(tree / "elsewhere", tree / "bound"));
        EXPECT_EQ(trashed(tree / "bound/item", home), moved);
        EXPECT_TRUE(FileManager::type(tree / ("elsewhere/" + own + "/item")));

        // Where files and folders of one file system have different device numbers.
        for (const auto *path : {"unsafe/lower/home/item", "disk/upper/home/x", "disk/spare/x"}) {
            tree.add({path, bytes(1)});
        }
        const auto layers = fmt::format("lowerdir={0}/unsafe/lower,upperdir={0}/disk/upper,"
                                        "workdir={0}/disk/spare,xino=off",
                                        tree.root().path());
        if (::mount("none", (tree / "layered").path().c_str(), "overlay", 0, layers.c_str()) == 0) {
            EXPECT_EQ(trashed(tree / "layered/home/item", tree / "layered/home"), moved);
            EXPECT_TRUE(FileManager::exists(tree / "layered/home/.Trash/item"));
        }

        tree.add({"unsafe/.Trashes", directory()});
        std::filesystem::permissions((tree / "unsafe/.Trashes").path(),
                                     std::filesystem::perms(0777));
        tree.add({"linked/.Trashes", link((tree / "elsewhere").path())});
        const std::pair<const char *, std::pair<int, int>> cases[] = {
            {"unsafe/item", {PlatformError::fileWriteNoPermission, EPERM}},
            {"linked/item", {PlatformError::fileWriteUnknown, ENOTDIR}},
            {"full/item", {PlatformError::fileWriteOutOfSpace, ENOSPC}},
            {"home/mounted", {PlatformError::fileWriteUnknown, EXDEV}},
        };
        for (const auto &[item, codes] : cases) {
            if (!FileManager::exists(tree / item)) {
                tree.add({item, bytes(1)});
            }
            EXPECT_EQ(trashed(tree / item, home), codes) << item;
            EXPECT_TRUE(FileManager::type(tree / item)) << item;
        }

        // A home that cannot be looked at may have a Trash on the same volume.
        tree.add({"disk/closed/home", directory()});
        tree.add({"disk/open/item", bytes(1)});
        for (const auto &[name, mode] :
             {std::pair("", 0755), {"disk", 0777}, {"disk/open", 0777}, {"disk/closed", 0}}) {
            std::filesystem::permissions((tree / name).path(), std::filesystem::perms(mode));
        }
        becomeOrdinaryUser();
        EXPECT_EQ(trashed(tree / "disk/open/item", tree / "disk/closed/home"),
                  std::pair(int(PlatformError::fileWriteNoPermission), EACCES));
        EXPECT_TRUE(FileManager::exists(tree / "disk/open/item"));
    });
}

} // namespace
} // namespace klarbox::test
