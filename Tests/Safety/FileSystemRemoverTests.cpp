#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"
#include "KlarboxKit/Safety/TrashFolder.hpp"

#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;

/// The error that moving to the Trash of `home` ends with.
std::optional<PlatformError> trashed(const FileURL &url, const FileURL &home) {
    try {
        FileSystemRemover(home).moveToTrash(url);
        return std::nullopt;
    } catch (const PlatformError &error) {
        return error;
    }
}

mode_t modeOf(const FileURL &url) {
    struct stat status {};
    return ::lstat(url.path().c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(FileSystemRemover, numbersNamesBeforeTheirExtension) {
    const std::string longest(255, 'n');
    const std::string umlauts = [] {
        std::string name = "n"; // so that the cut falls into the middle of a character
        while (name.size() < 255) {
            name += "ü";
        }
        return name;
    }();
    const std::pair<std::string, std::string> cases[] = {
        {"notes.txt", "notes 2.txt"},
        {"folder", "folder 2"},
        {"com.example.app", "com.example 2.app"},
        {".hidden", ".hidden 2"},
        {".hidden.txt", ".hidden 2.txt"},
        {"dot.", "dot. 2"},
        {longest, std::string(253, 'n') + " 2"},
        {umlauts, umlauts.substr(0, 253) + " 2"},
        {"x." + longest.substr(2), "x." + longest.substr(4) + " 2"},
    };
    for (const auto &[name, numbered] : cases) {
        EXPECT_EQ(numberedName(name, 2), numbered) << name;
    }
}

TEST(FileSystemRemover, movesWholeItemsAndReplacesNothing) {
    const TemporaryTree tree{
        {"home/a/notes.txt", text("1")},      {"home/b/notes.txt", text("2")},
        {"home/c/notes.txt/deep", text("3")}, {"home/link", link("../outside")},
        {"outside/kept", text("kept")},       {"home/names/\xff\n", text("4")},
    };
    const auto home = tree / "home";
    const auto outside = manifest(tree / "outside");
    for (const auto *item : {"a/notes.txt", "b/notes.txt", "c/notes.txt", "link", "names/\xff\n"}) {
        EXPECT_FALSE(trashed(home.appending(item), home)) << item;
        EXPECT_FALSE(FileManager::type(home.appending(item))) << item;
    }
    EXPECT_THAT(FileManager::contentsOfDirectory(home.appending(".Trash")),
                UnorderedElementsAre("notes.txt", "notes 2.txt", "notes 3.txt", "link", "\xff\n"));
    EXPECT_EQ(FileManager::contents(home.appending(".Trash/notes.txt")), "1");
    EXPECT_EQ(FileManager::contents(home.appending(".Trash/notes 2.txt")), "2");
    EXPECT_EQ(FileManager::contents(home.appending(".Trash/notes 3.txt/deep")), "3");
    EXPECT_EQ(FileManager::type(home.appending(".Trash/link")),
              FileManager::FileType::symbolicLink);
    EXPECT_EQ(modeOf(home.appending(".Trash")), 0700U);
    EXPECT_EQ(manifest(tree / "outside"), outside);
}

TEST(FileSystemRemover, concurrentMovesOfOneNameAllArrive) {
    constexpr int threads = 4;
    constexpr int each = 50;
    const TemporaryTree tree{{"home", directory()}};
    const auto home = tree / "home";
    for (int item = 0; item < threads * each; ++item) {
        tree.add({fmt::format("home/{}/cache", item), text(std::to_string(item))});
    }
    {
        std::vector<std::jthread> movers;
        for (int mover = 0; mover < threads; ++mover) {
            movers.emplace_back([&, mover] {
                for (int item = mover * each; item < (mover + 1) * each; ++item) {
                    EXPECT_FALSE(trashed(home.appending(fmt::format("{}/cache", item)), home));
                }
            });
        }
    }
    std::vector<std::string> contents;
    for (const auto &name : FileManager::contentsOfDirectory(home.appending(".Trash"))) {
        contents.push_back(FileManager::contents(home.appending(".Trash/" + name)));
    }
    std::ranges::sort(contents);
    EXPECT_EQ(contents.size(), threads * each);
    EXPECT_EQ(std::ranges::adjacent_find(contents), contents.end());
}

TEST(FileSystemRemover, saysWhyAnItemStaysAndLeavesItWhole) {
    inIsolatedProcess([] {
        becomeOrdinaryUser();
        const TemporaryTree tree{
            {"home/.Trash", directory()},
            {"home/readOnly/item", bytes(1)},
            {"home/readOnly", directory(), std::nullopt, 0500},
            {"linked/item", bytes(1)},
            {"linked/.Trash", link("../elsewhere")},
            {"occupied/item", bytes(1)},
            {"occupied/.Trash", bytes(1)},
            {"elsewhere", directory()},
        };
        struct Case {
            const char *item;
            const char *home;
            int code;
            int cause;
            const char *says;
        } const cases[] = {
            {"home/readOnly/item", "home", PlatformError::fileWriteNoPermission, EACCES,
             "“item” couldn’t be moved to the Trash. Permission denied."},
            {"home/none", "home", PlatformError::fileNoSuchFile, ENOENT,
             "“none” couldn’t be moved to the Trash. No such file or directory."},
            {"linked/item", "linked", PlatformError::fileWriteUnknown, ENOTDIR,
             "“item” couldn’t be moved to the Trash. The folder “.Trash” couldn’t be used. Not a "
             "directory."},
            {"occupied/item", "occupied", PlatformError::fileWriteUnknown, ENOTDIR, "“.Trash”"},
        };
        const auto before = manifest(tree.root());
        for (const auto &[item, home, code, cause, says] : cases) {
            const auto error = trashed(tree / item, tree / home);
            ASSERT_TRUE(error) << item;
            EXPECT_EQ(error->domain(), PlatformError::Domain::cocoa) << item;
            EXPECT_EQ(error->code(), code) << item;
            ASSERT_NE(error->cause(), nullptr) << item;
            EXPECT_EQ(error->cause()->code(), cause) << item;
            EXPECT_THAT(error->message(), HasSubstr(says));
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

TEST(FileSystemRemover, anotherVolumeHasATrashOfItsOwn) {
    inIsolatedProcess([] {
        if (!enterMountNamespace()) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        const TemporaryTree tree{
            {"home", directory()},        {"disk", directory()},         {"unsafe", directory()},
            {"linked", directory()},      {"full", directory()},         {"bound", directory()},
            {"elsewhere/item", bytes(1)}, {"home/mounted", directory()},
        };
        const auto home = tree / "home";
        const auto own = fmt::format(".Trashes/{}", ::getuid());
        const auto mount = [&](const char *name, const char *options) {
            return ::mount("none", (tree / name).path().c_str(), "tmpfs", 0, options) == 0;
        };

        ASSERT_TRUE(mount("disk", ""));
        tree.add({"disk/a/b/item", text("moved")});
        EXPECT_FALSE(trashed(tree / "disk/a/b/item", home));
        EXPECT_EQ(FileManager::contents(tree / ("disk/" + own + "/item")), "moved");
        EXPECT_EQ(modeOf(tree / "disk/.Trashes"), 01333U);
        EXPECT_EQ(modeOf(tree / ("disk/" + own)), 0700U);

        // The same file system in a second place: a move from there to the home's Trash is none.
        ASSERT_EQ(::mount((tree / "elsewhere").path().c_str(), (tree / "bound").path().c_str(),
                          nullptr, MS_BIND, nullptr),
                  0);
        EXPECT_FALSE(trashed(tree / "bound/item", home));
        EXPECT_TRUE(FileManager::type(tree / ("elsewhere/" + own + "/item")));

        ASSERT_TRUE(mount("unsafe", ""));
        tree.add({"unsafe/item", bytes(1)});
        tree.add({"unsafe/.Trashes", directory()});
        ASSERT_EQ(::chmod((tree / "unsafe/.Trashes").path().c_str(), 0777), 0);
        ASSERT_TRUE(mount("linked", ""));
        tree.add({"linked/item", bytes(1)});
        tree.add({"linked/.Trashes", link((tree / "elsewhere").path())});
        ASSERT_TRUE(mount("full", "nr_inodes=3"));
        tree.add({"full/item", bytes(1)});
        ASSERT_TRUE(mount("home/mounted", ""));
        const std::tuple<const char *, int, int> cases[] = {
            {"unsafe/item", PlatformError::fileWriteNoPermission, EPERM},
            {"linked/item", PlatformError::fileWriteUnknown, ENOTDIR},
            {"full/item", PlatformError::fileWriteOutOfSpace, ENOSPC},
            {"home/mounted", PlatformError::fileWriteUnknown, EXDEV},
        };
        for (const auto &[item, code, cause] : cases) {
            const auto error = trashed(tree / item, home);
            ASSERT_TRUE(error) << item;
            EXPECT_EQ(error->code(), code) << item << error->message();
            ASSERT_NE(error->cause(), nullptr) << item;
            EXPECT_EQ(error->cause()->code(), cause) << item << error->message();
            EXPECT_TRUE(FileManager::type(tree / item)) << item;
        }
        for (const auto *name : {"disk", "bound", "unsafe", "linked", "full", "home/mounted"}) {
            ::umount2((tree / name).path().c_str(), MNT_DETACH);
        }
    });
}

} // namespace
} // namespace klarbox::test
