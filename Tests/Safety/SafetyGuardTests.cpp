#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

namespace fs = std::filesystem;

/// The violation that the guard names, or nothing with the accepted location in `accepted`.
std::optional<SafetyViolation> violation(const SafetyGuard &guard, const FileURL &url,
                                         const FileURL &root, FileURL *accepted = nullptr) {
    try {
        const auto found = guard.validate(url, root);
        if (accepted != nullptr) {
            *accepted = found;
        }
        return std::nullopt;
    } catch (const SafetyRefusal &refusal) {
        return refusal.violation();
    }
}

TEST(SafetyGuard, namesTheFirstRuleThatIsBroken) {
    using V = SafetyViolation;
    const TemporaryTree tree{
        {"home/Documents/report.pdf", bytes(1)},
        {"home/Library/Caches/app/x", bytes(1)},
        {"root/sub/file", bytes(1)},
        {"root/a/b", bytes(1)},
        {"root/project/.GIT/objects/x", bytes(1)},
        {"root/project/.git/objects/x", bytes(1)},
        {"root/project/.gitignore", bytes(1)},
        {"root/out", link("../outside")},
        {"root/in", link("sub")},
        {"root/dangling", link("nowhere")},
        {"rootOld/x", bytes(1)},
        {"outside/x", bytes(1)},
        {"outside/ROOT", link("../root")},
        {"alias", link("root")},
        {"strange/\xff\xfe/x", bytes(1)},
        {"strange/Ä/x", bytes(1)},
    };
    const SafetyGuard guard(tree / "home");
    struct Case {
        std::string url;
        std::string root;
        std::optional<V> expected = {};
        std::string accepted = {}; ///< where the written path leads, if it differs
        bool isDirectory = false;
    };
    const std::vector<Case> cases{
        {"root/sub", "root", {}, {}, true},
        {"root/sub/", "root/", {}, "root/sub", true},
        {"root/./a/../sub/file", "root", {}, "root/sub/file"},
        {"root/sub", "no-root", V::notFound},
        {"root/sub", "root/dangling", V::notFound},
        {"root/missing", "root", V::notFound},
        {"root/missing/x", "root", V::notFound},
        {"root/sub/file/x", "root", V::notFound},
        {std::string("root/sub\0/x", 11), "root", V::notFound},
        {std::string("root/sub\0", 9), "root", V::notFound},
        {"root", "root", V::isRoot},
        {"root/sub/..", "root", V::isRoot},
        {"root/.", "root", V::isRoot},
        {"root", "alias", V::isRoot},
        {"../../../../../../../../..", "root", V::isRoot},
        // What is gone cannot be judged any further, wherever it is.
        {"root/../nothing", "root", V::notFound},
        {"root/../rootOld", "root", V::notInsideRoot},
        {"rootOld/x", "root", V::notInsideRoot},
        {"outside/x", "root", V::notInsideRoot},
        // Above the root, with the root's own letters in another case on the way.
        {"outside/ROOT", "root", V::notInsideRoot},
        {"root/out/x", "root", V::symlinkEscape},
        {"alias/out/x", "root", V::notInsideRoot},
        {"alias/out/x", "alias", V::symlinkEscape},
        {"root/out/x", "alias", V::symlinkEscape},
        // A link on the way that stays inside, and links that are themselves the thing to remove.
        {"root/in/file", "root", {}, "root/sub/file"},
        {"alias/sub", "root", {}, "root/sub", true},
        {"root/sub", "alias", {}, {}, true},
        {"root/out", "root"},
        {"root/in", "root"},
        {"root/dangling", "root"},
        {"outside/ROOT/a/b", "root", {}, "root/a/b"},
        {"root/project/.git", "root", V::insideGitDirectory},
        {"root/project/.git/objects", "root", V::insideGitDirectory},
        {"root/project/.GIT/objects/x", "root", V::insideGitDirectory},
        {"root/project/.git/objects/x", "root/project/.git/objects", V::insideGitDirectory},
        {"root/project/.gitignore", "root"},
        {"home", "", V::protectedLocation},
        {"home/Documents", "home", V::protectedLocation},
        {"home/Library/Caches", "home/Library", V::protectedLocation},
        {"home/Documents/report.pdf", "home"},
        {"home/Library/Caches/app", "home/Library/Caches", {}, {}, true},
        {"strange/\xff\xfe/x", "strange"},
        {"strange/\xff\xfe", "strange", {}, {}, true},
        {"strange/Ä/x", "strange/\xff\xfe", V::notInsideRoot},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.url + " within " + test.root);
        FileURL accepted;
        EXPECT_EQ(violation(guard, tree / test.url, tree / test.root, &accepted), test.expected);
        if (!test.expected) {
            EXPECT_EQ(accepted, tree / (test.accepted.empty() ? test.url : test.accepted));
            EXPECT_EQ(accepted.isDirectory(), test.isDirectory);
        }
    }
    EXPECT_EQ(violation(guard, FileURL("/"), tree.root()), V::isRoot);
    EXPECT_EQ(violation(guard, FileURL("/etc"), FileURL("/")), V::protectedLocation);
}

TEST(SafetyGuard, protectsWhatAProtectedFolderThatIsALinkLeadsTo) {
    const TemporaryTree tree{
        {"Home/x", bytes(1)},
        {"Disk/Pictures/cat.jpg", bytes(1)},
        {"Home/Pictures", link("../Disk/Pictures")},
        {"linked", link("Home")},
    };
    const SafetyGuard guard(tree / "linked");
    EXPECT_EQ(violation(guard, tree / "Disk/Pictures", tree.root()),
              SafetyViolation::protectedLocation);
    EXPECT_EQ(violation(guard, tree / "Home/Pictures", tree.root()),
              SafetyViolation::protectedLocation);
    EXPECT_EQ(violation(guard, tree / "Home", tree.root()), SafetyViolation::protectedLocation);
    EXPECT_EQ(violation(guard, tree / "Disk/Pictures/cat.jpg", tree.root()), std::nullopt);
}

TEST(SafetyGuard, knowsProtectedPlacesThatDoNotExist) {
    const SafetyGuard guard(FileURL("/Users/Änn"));
    const std::pair<const char *, bool> cases[] = {
        {"/", true},
        {"/System", true},
        {"/LIBRARY/caches/", true},
        {"/Library/Caches/com.example.app", false},
        {"/Library/Developer/CoreSimulator/Caches/dyld", true},
        {"/Users/Änn", true},
        {"/users/änn/.CONFIG", true},
        {"/Users/A\u0308nn/Library/Mobile Documents/com~apple~CloudDocs", true},
        {"/Users/Änn/Library/Mobile Documents/com~apple~CloudDocs/x", false},
        {"/Users/Änn/Library/../.ssh", true},
        {"/Volumes/Backup", true},
        {"/volumes/Backup/.", true},
        {"/Volumes/Backup/old", false},
        {"/Volume/Backup", false},
    };
    for (const auto &[path, expected] : cases) {
        EXPECT_EQ(guard.isProtected(FileURL(path)), expected) << path;
    }
}

TEST(SafetyGuard, comparesWholeComponentsWithoutLetterCase) {
    EXPECT_FALSE(SafetyGuard::isInside("/a/b", "/a/b"));
    EXPECT_FALSE(SafetyGuard::isInside("/a/bc", "/a/b"));
    EXPECT_FALSE(SafetyGuard::isInside("/a", "/a/b"));
    EXPECT_TRUE(SafetyGuard::isInside("/A/b/c", "//a/B/"));
    EXPECT_TRUE(SafetyGuard::isInside("/STRASSE/É", "/strasse"));
    EXPECT_TRUE(SafetyGuard::isInside("/e\u0301/x", "/É"));
    EXPECT_TRUE(SafetyGuard::isInside("/a", "/"));
    EXPECT_FALSE(SafetyGuard::isInside("/\xff/x", "/\xfe"));
}

/// Whatever the tree, a location that is accepted exists, is fully resolved but for its own last
/// component, lies strictly inside the real root, and is neither protected nor below ".git".
TEST(SafetyGuard, acceptsNothingOutsideTheRootInRandomTrees) {
    constexpr const char *names[] = {"a", "B", ".git", "Library", "Caches", ".."};
    std::mt19937 random(20261122);
    const auto pick = [&](std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
    };
    int acceptedCount = 0;
    int escapes = 0;
    for (int round = 0; round < 30; ++round) {
        const TemporaryTree tree{{"home", directory()}, {"home/root", directory()}};
        std::vector<std::string> folders{"home", "home/root"};
        for (int count = 0; count < 40; ++count) {
            const auto path = folders[pick(folders.size())] + "/" + names[pick(5)];
            const auto target = folders[pick(folders.size())];
            std::error_code failed; // a name that is taken already
            switch (pick(4)) {
            case 0:
                fs::create_directory_symlink((tree / target).path(), (tree / path).path(), failed);
                break;
            case 1:
                fs::create_symlink(std::string("../") + names[pick(6)], (tree / path).path(),
                                   failed);
                break;
            default:
                fs::create_directory((tree / path).path(), failed);
            }
            folders.push_back(path);
        }
        const SafetyGuard guard(tree / "home");
        for (int count = 0; count < 400; ++count) {
            auto path = folders[pick(folders.size())];
            for (auto more = pick(4); more > 0; --more) {
                path += std::string("/") + names[pick(6)];
            }
            const auto root = tree / (pick(2) == 0 ? "home/root" : folders[pick(folders.size())]);
            FileURL accepted;
            const auto refused = violation(guard, tree / path, root, &accepted);
            escapes += refused == SafetyViolation::symlinkEscape ? 1 : 0;
            if (refused) {
                continue;
            }
            ++acceptedCount;
            SCOPED_TRACE(path + " within " + root.path());
            ASSERT_TRUE(fs::exists(fs::symlink_status(accepted.path())));
            ASSERT_EQ(fs::canonical(accepted.parent().path()).string(), accepted.parent().path());
            const auto realRoot = fs::canonical(root.path()).string();
            ASSERT_TRUE(accepted.path().starts_with(realRoot + "/"));
            ASSERT_EQ((accepted.path() + "/").find("/.git/"), std::string::npos);
            for (const auto *name : {"", "/Library", "/Library/Caches"}) {
                ASSERT_NE(accepted.path(), (tree / "home").path() + name);
            }
        }
    }
    // The trees must have been such that the property was put to the test.
    EXPECT_GT(acceptedCount, 500);
    EXPECT_GT(escapes, 50);
}

} // namespace
} // namespace klarbox::test
