#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <filesystem>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

namespace fs = std::filesystem;

/// What the guard says: the location that it accepts, or the violation that it names.
template <typename Judge>
std::optional<SafetyViolation> verdict(FileURL &accepted, const Judge &judge) {
    try {
        accepted = judge();
        return std::nullopt;
    } catch (const SafetyRefusal &refusal) {
        return refusal.violation();
    }
}

/// The violation that the guard names, whichever way it is asked, or nothing with the accepted
/// location in `accepted`.
std::optional<SafetyViolation> violation(const SafetyGuard &guard, const FileURL &url,
                                         const FileURL &root, FileURL *accepted = nullptr) {
    FileURL validated;
    FileURL pinned;
    const auto found = verdict(validated, [&] { return guard.validate(url, root); });
    EXPECT_EQ(verdict(pinned, [&] { return guard.pin(url, root).location(); }), found);
    EXPECT_EQ(pinned, validated);
    EXPECT_EQ(pinned.isDirectory(), validated.isDirectory());
    if (accepted != nullptr && !found) {
        *accepted = validated;
    }
    return found;
}

TEST(SafetyGuard, namesTheFirstRuleThatIsBroken) {
    using V = SafetyViolation;
    const TemporaryTree tree{
        {"root/out", link("../outside")},
        {"root/in", link("sub")},
        {"root/dangling", link("nowhere")},
        {"outside/ROOT", link("../root")},
        {"alias", link("root")},
    };
    for (const auto *file :
         {"home/Documents/report.pdf", "home/Library/Caches/app/x", "home/Library/Keychains/x",
          "home/Library/Mail/x", "home/Library/Messages/x", "root/sub/file", "root/a/b",
          "root/project/.GIT/objects/x", "root/project/.git/objects/x", "root/project/.gitignore",
          "rootOld/x", "outside/x", "strange/\xff\xfe/x", "strange/Ä/x"}) {
        tree.add({file, bytes(1)});
    }
    const SafetyGuard guard(tree / "home");
    const struct {
        const char *root;
        std::optional<V> expected;
        std::string paths; ///< each of them is judged so
    } cases[] = {
        {"root", V::notFound, "root/missing root/sub/file/x"},
        {"root", V::notFound, "root/../nothing"}, // cannot be judged further, wherever it is
        {"no-root", V::notFound, "root/sub"},
        {"root/dangling", V::notFound, "root/sub"},
        {"root", V::isRoot, "root root/sub/.. ../../../../../../../../.."},
        {"alias", V::isRoot, "root"},
        {"root", V::notInsideRoot, "root/../rootOld rootOld/x outside/x alias/out/x"},
        // Above the root, with the root's own letters in another case on the way.
        {"root", V::notInsideRoot, "outside/ROOT"},
        {"strange/\xff\xfe", V::notInsideRoot, "strange/Ä/x"},
        {"root", V::symlinkEscape, "root/out/x"},
        {"alias", V::symlinkEscape, "alias/out/x root/out/x"},
        {"root", V::insideGitDirectory, "root/project/.git root/project/.GIT/objects/x"},
        {"root/project/.git/objects", V::insideGitDirectory, "root/project/.git/objects/x"},
        {"", V::protectedLocation, "home"},
        {"home", V::protectedLocation, "home/Documents home/Library/Caches home/Library/Keychains"},
        {"home/Library", V::protectedLocation, "home/Library/Mail home/Library/Messages"},
        // Links are themselves the thing to remove.
        {"root", std::nullopt, "root/out root/in root/dangling root/project/.gitignore"},
        {"alias", std::nullopt, "root/sub"},
        {"home", std::nullopt, "home/Documents/report.pdf home/Library/Caches/app"},
        {"strange", std::nullopt, "strange/\xff\xfe/x"},
    };
    for (const auto &[root, expected, paths] : cases) {
        std::istringstream all(paths);
        for (std::string path; all >> path;) {
            FileURL accepted(tree / path);
            EXPECT_EQ(violation(guard, tree / path, tree / root, &accepted), expected)
                << path << " within " << root;
            EXPECT_EQ(accepted, tree / path);
        }
    }
    // What is accepted is where the written path leads, with the links on the way that stay inside.
    const std::pair<const char *, const char *> resolved[] = {
        {"root/sub/", "root/sub"},         {"root/./a/../sub/file", "root/sub/file"},
        {"root/in/file", "root/sub/file"}, {"alias/sub", "root/sub"},
        {"outside/ROOT/a/b", "root/a/b"},
    };
    for (const auto &[written, expected] : resolved) {
        const auto location = guard.validate(tree / written, tree / "root/");
        EXPECT_EQ(location, tree / expected);
        EXPECT_EQ(location.isDirectory(), FileManager::isDirectory(location)) << written;
    }
    const std::string withNUL("root/sub\0/x", 11);
    EXPECT_EQ(violation(guard, tree / withNUL, tree / "root"), V::notFound);
    EXPECT_EQ(violation(guard, FileURL("/"), tree.root()), V::isRoot);
    EXPECT_EQ(violation(guard, FileURL("/etc"), FileURL("/")), V::protectedLocation);
}

TEST(SafetyGuard, protectsWhatAProtectedFolderThatIsALinkLeadsTo) {
    const TemporaryTree tree{
        {"Disk/Pictures/cat.jpg", bytes(1)},
        {"Disk/Trash/x", bytes(1)},
        {"Home/Pictures", link("../Disk/Pictures")},
        {"Home/.Trash", link("../Disk/Trash")},
        {"linked", link("Home")},
    };
    const SafetyGuard guard(tree / "linked");
    for (const auto *path : {"Disk/Pictures", "Home/Pictures", "Home", "Disk/Trash"}) {
        EXPECT_EQ(violation(guard, tree / path, tree.root()), SafetyViolation::protectedLocation);
        EXPECT_TRUE(guard.isProtected(tree / path));
        // Emptied it may be, as the Trash that it is.
        EXPECT_EQ(guard.mayBeEmptied(tree / path), std::string(path) == "Disk/Trash") << path;
    }
    EXPECT_EQ(violation(guard, tree / "Disk/Pictures/cat.jpg", tree.root()), std::nullopt);
}

TEST(SafetyGuard, knowsPlacesByEverySpellingThatTheirDiskTakesForOne) {
    using V = SafetyViolation;
    const TemporaryTree tree{
        {"Änn/Desktop/x", bytes(1)},
        {"Änn/Library/Caches/App/x", bytes(1)},
        {"Änn/Library/Caches/Work/.GIT/config", bytes(1)},
        {"Änn/Library/Caches/Out", link("../../Desktop")},
    };
    if (!FileManager::exists(tree / "A\u0308NN")) {
        GTEST_SKIP() << "this file system tells letter cases apart";
    }
    const SafetyGuard guard(tree / "Änn");
    const struct {
        const char *root;
        const char *path;
        std::optional<V> expected;
    } cases[] = {
        {"Änn", "A\u0308nn/DESKTOP", V::protectedLocation},
        {"ÄNN", "Änn/Deſktop", V::protectedLocation},
        {"", "ÄNN", V::protectedLocation},
        {"Änn/Library/Caches", "A\u0308NN/LIBRARY/caches", V::isRoot},
        {"Änn/library/caches", "Änn/Library/Caches/Work/.git", V::insideGitDirectory},
        {"Änn/Library/Caches", "Änn/desktop/x", V::notInsideRoot},
        {"Änn/Library/Caches", "ÄNN/library/caches/OUT/x", V::symlinkEscape},
        {"A\u0308nn/library/CACHES", "Änn/Library/Caches/APP", std::nullopt},
        {"Änn/Library/Caches", "ÄNN/library/caches/OUT", std::nullopt},
    };
    for (const auto &[root, path, expected] : cases) {
        EXPECT_EQ(violation(guard, tree / path, tree / root), expected) << path;
    }
}

TEST(SafetyGuard, letsNoLinkLeadOutOfAnEnclosure) {
    const TemporaryTree tree{
        {"disk/home/Caches", link("../../outside")},
        {"disk/home/Logs", link("../other")},
        {"disk/home/inner", link("real")},
        {"disk/home/real/x", bytes(1)},
        {"disk/Caches", link("other")},
        {"disk/Logs", link("../outside")},
        {"disk/other/x", bytes(1)},
        {"outside/x", bytes(1)},
        {"linked", link("disk")},
    };
    const std::vector enclosures{tree / "linked", tree / "disk/home"};
    const SafetyGuard guard(tree / "disk/home", enclosures);
    constexpr auto escape = SafetyViolation::symlinkEscape;
    const std::pair<const char *, std::optional<SafetyViolation>> cases[] = {
        {"disk/home/Caches", escape},      {"disk/home/Logs", escape}, // the home's, not the disk's
        {"disk/home/inner", std::nullopt}, {"disk/Caches", std::nullopt},
        {"linked/Caches", std::nullopt},   {"disk/Logs", escape},
        {"linked/Logs", escape},           {"outside", std::nullopt}, // never written as inside
    };
    for (const auto &[root, expected] : cases) {
        EXPECT_EQ(violation(guard, (tree / root).appending("x"), tree / root), expected) << root;
    }
    // An enclosure that is itself a link out of another opens no way.
    tree.add({"outside/far/down/here/x", bytes(1)});
    tree.add({"disk/volume", link("../outside/far/down/here")});
    const SafetyGuard nested(tree / "disk/home", std::vector{tree / "disk", tree / "disk/volume"});
    EXPECT_EQ(violation(nested, tree / "disk/volume/x", tree / "disk/volume"), escape);
    // Nor when it is spelled as its disk may spell it, too.
    tree.add({"straße/out", link("../outside")});
    if (!FileManager::exists(tree / "STRASSE")) {
        tree.add({"STRASSE", link("straße")});
    }
    const SafetyGuard spelled(tree / "disk/home", std::vector{tree / "straße"});
    EXPECT_EQ(violation(spelled, tree / "STRASSE/out/x", tree / "STRASSE/out"), escape);
    // Nor when the way to the home begins elsewhere.
    tree.add({"elsewhere/home", link("../disk/home")});
    const SafetyGuard linking(tree / "elsewhere/home", std::vector{tree / "disk"});
    EXPECT_EQ(violation(linking, tree / "elsewhere/home/Caches/x", tree / "elsewhere/home/Caches"),
              escape);
    EXPECT_EQ(violation(linking, tree / "elsewhere/home/Logs/x", tree / "elsewhere/home/Logs"),
              std::nullopt);
}

TEST(SafetyGuard, knowsProtectedPlacesThatDoNotExist) {
    const SafetyGuard guard(FileURL("/Users/Änn"));
    const SafetyGuard strange(FileURL("/\xff/Änn")); // which folds nothing beside it
    EXPECT_TRUE(strange.isProtected(FileURL("/\xff/äNN/documents")));
    EXPECT_FALSE(strange.isProtected(FileURL("/\xfe/Änn/Documents")));
    const std::pair<const char *, bool> cases[] = {
        {"/", true},
        {"/System", true},
        {"/private/var/log", true},
        {"/LIBRARY/caches/", true},
        {"/Library/Caches/com.example.app", false},
        {"/Library/Developer/CoreSimulator/Caches/dyld", true},
        {"/Users/Änn", true},
        {"/users/änn/.CONFIG", true},
        {"/Users/A\u0308nn/Library/Mobile Documents/com~apple~CloudDocs", true},
        {"/Users/Änn/Library/Mobile Documents/com~apple~CloudDocs/x", false},
        {"/Users/Änn/Library/../.ssh", true},
        {"/Users/Änn/.ſSH", true}, // one name with the above, where letter case does not count
        {"/Volumes/Backup", true},
        {"/volumes/Backup/.", true},
        {"/Volumes/Backup/old", false},
        {"/Volume/Backup", false},
    };
    for (const auto &[path, expected] : cases) {
        EXPECT_EQ(guard.isProtected(FileURL(path)), expected) << path;
    }
    EXPECT_TRUE(SafetyGuard::isInside("/A/É/c", "//a/e\u0301/"));
    EXPECT_FALSE(SafetyGuard::isInside("/a/bc", "/a/b") || SafetyGuard::isInside("/a", "/A/"));
}

/// Whatever the tree, a location that is accepted exists, is fully resolved but for its own last
/// component, lies strictly inside the real root, and is neither protected nor below ".git".
TEST(SafetyGuard, acceptsNothingOutsideTheRootInRandomTrees) {
    constexpr const char *names[] = {"a", "B", ".git", "Library", "Caches", ".."};
    std::mt19937 random(20261122);
    const auto pick = [&](std::size_t count) { return random() % count; };
    int acceptedCount = 0;
    int escapes = 0;
    for (int round = 0; round < 30; ++round) {
        const TemporaryTree tree{{"home/root", directory()}};
        std::vector<std::string> folders{"home", "home/root"};
        const auto anyFolder = [&] { return folders[pick(folders.size())]; };
        for (int count = 0; count < 40; ++count) {
            const auto folder = anyFolder();
            const auto path = folder + "/" + names[pick(5)];
            const auto kind = pick(4);
            const auto target =
                kind == 0 ? (tree / anyFolder()).path() : std::string("../") + names[pick(6)];
            folders.push_back(path);
            std::error_code failed; // a name that is taken already
            // Links made before may lead out of the tree; nothing is made there.
            const auto place = fs::canonical((tree / folder).path(), failed).string() + "/";
            if (!place.starts_with(tree.root().path() + "/")) {
                continue;
            }
            if (kind < 2) {
                fs::create_directory_symlink(target, (tree / path).path(), failed);
            } else {
                fs::create_directory((tree / path).path(), failed);
            }
        }
        const SafetyGuard guard(tree / "home");
        for (int count = 0; count < 400; ++count) {
            auto path = anyFolder();
            for (auto more = pick(4); more > 0; --more) {
                path += std::string("/") + names[pick(6)];
            }
            const auto root = tree / (pick(2) == 0 ? "home/root" : anyFolder());
            FileURL accepted;
            if (const auto refused = violation(guard, tree / path, root, &accepted)) {
                escapes += refused == SafetyViolation::symlinkEscape ? 1 : 0;
                continue;
            }
            ++acceptedCount;
            SCOPED_TRACE(path + " within " + root.path());
            ASSERT_TRUE(fs::exists(fs::symlink_status(accepted.path())));
            ASSERT_EQ(fs::canonical(accepted.parent().path()).string(), accepted.parent().path());
            ASSERT_TRUE(accepted.path().starts_with((fs::canonical(root.path()) / "").string()));
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
