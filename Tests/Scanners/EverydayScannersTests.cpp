#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"
#include "KlarboxKit/Scanners/InstallersScanner.hpp"
#include "KlarboxKit/Scanners/LogsScanner.hpp"
#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"
#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"
#include "KlarboxKit/Scanners/TrashScanner.hpp"
#include "KlarboxKit/Scanners/UserCachesScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/HardTrees.hpp"
#include "Tests/Support/IsolatedProcess.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// Both scanners of caches judge an entry by whose it is and whether that application runs.
TEST(CacheScanners, judgeEntriesByTheirApplication) {
    const TemporaryTree home{{"system/file", bytes(5000)}};
    addFiles(home, "Library/Caches/",
             "Com.apple.x/a com.apple.Music/a com.apple.Safari/a com.appleseed/a org.example.on/a "
             // Those of developer tools and of the program itself are left out.
             "Yarn/a pip com.github.xcpretty org.example.own");
    addFiles(home, "system/", "com.apple.Safari/a org.example.on/a");
    auto context = scanContext(home.root());
    context.environment.runningBundleIDs = {"org.example.on", "com.apple.Music"};
    context.environment.installedAppName = [](std::string_view id) {
        return id == "org.example.on" ? std::optional<std::string>("On") : std::nullopt;
    };
    EXPECT_EQ(offers(UserCachesScanner("org.example.own"), context, home.root()), R"(
user-caches:* | * | ~ | contents $/Library/Caches/Com.apple.x | .. | [x] safe
user-caches:* | * | ~ | contents $/Library/Caches/com.apple.Music | .. | [ ] review
    The app is running.
    Quit it first so it doesn't recreate files while cleaning.
user-caches:* | * | ~ | contents $/Library/Caches/com.apple.Safari | .. | [ ] review
    Used by macOS and Apple apps.
    Usually rebuilt, but some may sign you out or reset state.
user-caches:* | * | ~ | contents $/Library/Caches/com.appleseed | .. | [x] safe
user-caches:* | On | ~ | contents $/Library/Caches/org.example.on | .. | [ ] safe
    The app is running.
    Quit it first so it doesn't recreate files while cleaning.)");
    context.home = home / "elsewhere";
    const SystemCachesScanner systemCaches(home / "system");
    EXPECT_EQ(offers(systemCaches, context, home.root()), R"(
system-caches:* | * | @ | contents $/system/com.apple.Safari | .. | [ ] review permanent root
    Used by macOS.
    Usually rebuilt, but a system service may misbehave until it recreates it or you restart.
system-caches:* | On | @ | contents $/system/org.example.on | .. | [ ] safe permanent root
    The app is running.
    Quit it first so it doesn't recreate files while cleaning.
system-caches:* | * | @ | item $/system/file | .. | [x] safe permanent root)");
}

/// Folders stay and files go, largest first.
TEST(EntryScanners, offerFilesAndFoldersLargestFirst) {
    const TemporaryTree home{
        {"Library/Logs/DiagnosticReports/data", bytes(200'000)},
        {"Library/Logs/none", bytes(0)},
        {"Library/Caches", link("Logs")},
    };
    addFiles(home, "Library/Logs/", "b a .DS_Store");
    const auto context = scanContext(home.root());
    EXPECT_EQ(offers(LogsScanner(), context, home.root()), R"(
logs:* | * | ~ | contents $/Library/Logs/DiagnosticReports | .. | [x] safe
logs:* | * | ~ | item $/Library/Logs/a | .. | [x] safe
logs:* | * | ~ | item $/Library/Logs/b | .. | [x] safe)");
    EXPECT_THAT(titles(UserCachesScanner().scan(context, {})),
                ElementsAre("DiagnosticReports", "a", "b"));
}

/// A link is measured and removed as itself where root removes it; elsewhere it is offered as what
/// it leads to, for the cleaner to refuse.
TEST(EntryScanners, measureLinksAsThemselves) {
    const TemporaryTree home{{"far/data", bytes(400'000)},
                             {"Library/Caches/linked", longLink("far")}};
    const auto context = scanContext(home.root());
    if (DiskUsage::allocatedSize(home / "Library/Caches/linked") == 0) {
        GTEST_SKIP() << "needs a file system that gives links blocks";
    }
    EXPECT_THAT(offers(UserCachesScanner(), context, home.root()),
                HasSubstr("| contents $/Library/Caches/linked |"));
    EXPECT_THAT(offers(SystemCachesScanner(home / "Library/Caches"), context, home.root()),
                HasSubstr("| item $/Library/Caches/linked |"));
}

/// A cache that is a disk of its own has a Trash in it as soon as something was cleaned.
TEST(CacheScanners, takeNothingThatTheSystemKeepsAtTheTopOfAVolume) {
    const std::string kept = ".Trashes/0/a .fseventsd/a .Spotlight-V100/a lost+found/a "
                             ".DocumentRevisions-V100/a .TemporaryItems/a .TRASH-1000/a ";
    const std::string taken = "own/lost+found/a .Trash-x/a .trashes2/a";
    const TemporaryTree home{{"linked", link("Library/Caches/disk")},
                             {"Library/Caches", directory()}};
    inIsolatedProcess([&] {
        if (!enterMountNamespace()) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        const auto caches = home / "Library/Caches";
        for (const auto &disk : {caches, caches.appending("disk")}) {
            ASSERT_TRUE(FileManager::exists(disk) || ::mkdir(disk.path().c_str(), 0700) == 0);
            ASSERT_TRUE(mountOn(disk));
            addFiles(home, FS::tildePath(disk, home.root()).substr(2) + "/", kept + taken);
        }
        const auto context = scanContext(home.root());
        const auto scan = UserCachesScanner().scan(context, {});
        EXPECT_THAT(titles(scan), ElementsAre("disk", ".Trash-x", ".trashes2", "own"));
        EXPECT_EQ(FS::children(home / "linked").size(), 3U);
        // The files of three folders; none of the folders takes any space there.
        EXPECT_EQ(scan.items.at(0).size,
                  3 * DiskUsage::allocatedSize(home / "Library/Caches/disk/own/lost+found/a"));

        const Cleaner cleaner(std::make_shared<SafetyGuard>(home.root()),
                              std::make_shared<FileSystemRemover>(home.root()),
                              context.environment.runner, nullptr, {});
        const auto ignore = [](auto &&...) {};
        const auto report = cleaner.clean(scan.items, RemovalMode::deletePermanently, ignore);
        EXPECT_TRUE(report.failures().empty());
        EXPECT_THAT(titles(UserCachesScanner().scan(context, {})), IsEmpty());
        for (const auto &path : words(kept)) {
            EXPECT_TRUE(FileManager::exists(caches.appending(path))) << path;
            EXPECT_TRUE(FileManager::exists(caches.appending("disk/" + path))) << path;
        }
    });
}

TEST(TrashScanner, offersTheHomeTrashAndThoseOfOtherVolumes) {
    const auto mine = "/.Trashes/" + std::to_string(::getuid());
    const TemporaryTree tree{
        {"home/.Trash/old", bytes(5000)},
        {"V/Plain", bytes(5000)},
        {"V/Zip" + mine + "/a", bytes(90'000)},
        {"V/Backup" + mine + "/a", bytes(5000)},
        {"V/Gone", link("nowhere")},
        {"V/Empty" + mine + "/.DS_Store", bytes(5000)},
        {"V/Other" + mine + "1/a", bytes(5000)},
    };
    const auto context = scanContext(tree / "home");
    const TrashScanner scanner(tree / "V");
    const std::string note = R"(
    Deleted permanently.
    This can't be undone.)";
    const auto found = replaced(offers(scanner, context, tree.root()), mine, "/MINE");
    EXPECT_EQ(replaced(found, note, " WHY"), R"(
trash:@ | Trash | ~ | contents $/home/.Trash | @ | [ ] review permanent WHY
trash:@ | Trash on Backup | @ | contents $/V/Backup/MINE | @ | [ ] review permanent WHY
trash:@ | Trash on Zip | @ | contents $/V/Zip/MINE | @ | [ ] review permanent WHY)");
    // One that cannot be read hides no other.
    tree.add({"V/A" + mine, bytes(5000)});
    const auto scan = scanner.scan(context, {});
    EXPECT_THAT(titles(scan), ElementsAre("Trash", "Trash on Backup", "Trash on Zip"));
    ASSERT_EQ(scan.issues.size(), 1U);
    EXPECT_TRUE(std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));
}

TEST(TrashScanner, takesALinkedTrashForTheFolderThatItLeadsTo) {
    const TemporaryTree tree{{"home/.Trash", link("../far")},
                             {"far/old", bytes(9000)},
                             {"bad/.Trash", link("Documents")},
                             {"bad/Documents/work", bytes(9000)}};
    const TrashScanner scanner(tree / "none");
    const auto context = scanContext(tree / "home");
    const auto scan = scanner.scan(context, {});
    ASSERT_EQ(each(scan, &KlarboxItem::size), std::vector{DiskUsage::allocatedSize(tree / "far")});
    const Cleaner cleaner(std::make_shared<SafetyGuard>(context.home),
                          std::make_shared<FileSystemRemover>(context.home),
                          context.environment.runner, nullptr, {});
    const auto report = cleaner.clean(scan.items, RemovalMode::moveToTrash, [](auto &&...) {});
    EXPECT_TRUE(report.failures().empty());
    EXPECT_THAT(FS::children(context.home.appending(".Trash")), IsEmpty()); // and the link is there
    // What is protected is no Trash.
    const auto refused = scanner.scan(scanContext(tree / "bad"), {});
    EXPECT_THAT(refused.items, IsEmpty());
    EXPECT_EQ(refused.issues.size(), 1U);
}

/// The startup volume is among the volumes, but its Trash is the one at home.
TEST(TrashScanner, leavesOutTheStartupVolume) {
    const auto trash = ".Trashes/" + std::to_string(::getuid());
    const TemporaryTree disk{{"V/Startup", link("/")}};
    addFiles(disk, "", trash + "/a V/Other/" + trash + "/a");
    inIsolatedProcess([&] {
        if (!enterMountNamespace() || ::chroot(disk.root().path().c_str()) != 0) {
            GTEST_SKIP() << "needs to make the disk the whole world";
        }
        const auto scan = TrashScanner(FileURL("/V")).scan(scanContext(FileURL("/home")), {});
        EXPECT_THAT(titles(scan), ElementsAre("Trash on Other"));
    });
}

TEST(InstallersScanner, offersInstallersWithTheirAge) {
    const struct {
        std::string name;
        std::chrono::microseconds age;
        std::string note; ///< empty: not offered
    } rows[] = {
        {"Tool.PKG", 48h, "Downloaded 2 days ago"},
        {"a.dmg", 23h, "Downloaded today"},
        {"archive.zip", 0h, ""},
        {"b.pkg", 24h, "Downloaded 1 days ago"},
        {"d.xip", -48h, "Downloaded today"},
        {"dmg", 0h, ""},
        {"e.Iso", 48h - 1us, "Downloaded 1 days ago"},
    };
    const TemporaryTree home{{"Downloads/sub/inner.dmg", bytes(5000)},
                             {"Downloads/folder.pkg/Contents/data", bytes(90'000), scanTime},
                             {"Downloads/folder.pkg", directory(), scanTime}};
    // A package folder is measured as a whole.
    std::string expected = "\ninstallers:* | * | ~ | item $/Downloads/folder.pkg | .. | "
                           "[ ] review\n    Downloaded today";
    for (const auto &[name, age, note] : rows) {
        home.add({"Downloads/" + name, bytes(5000), scanTime - age});
        if (!note.empty()) {
            expected += fmt::format("\ninstallers:* | * | ~ | item $/Downloads/{} | .. | "
                                    "[ ] review\n    {}",
                                    name, note);
        }
    }
    EXPECT_EQ(offers(InstallersScanner(), scanContext(home.root()), home.root()), expected);
}

TEST(MailDownloadsScanner, offersTheFolderAsOneItem) {
    const std::string folder = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads";
    const TemporaryTree home{{folder + "/.DS_Store", bytes(5000)}};
    const auto context = scanContext(home.root());
    EXPECT_EQ(offers(MailDownloadsScanner(), context, home.root()), "");
    home.add({folder + "/A1/photo.jpg", bytes(50'000)});
    EXPECT_EQ(offers(MailDownloadsScanner(), context, home / folder), R"(
mail-downloads | Opened Mail attachments | ~ | contents $ | @ | [ ] leftover
    Attachments stay in your mailbox and download again when opened.)");
}

} // namespace
} // namespace klarbox::test
