#include "KlarboxKit/Scanners/InstallersScanner.hpp"
#include "KlarboxKit/Scanners/LogsScanner.hpp"
#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"
#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"
#include "KlarboxKit/Scanners/TrashScanner.hpp"
#include "KlarboxKit/Scanners/UserCachesScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// Both scanners of caches judge an entry by whose it is and whether that application runs.
TEST(CacheScanners, judgeEntriesByTheirApplication) {
    const std::string running =
        "The app is running. Quit it first so it doesn't recreate files while cleaning.";
    const std::string appleUser =
        "Used by macOS and Apple apps. Usually rebuilt, but some may sign you out or reset state.";
    const std::string appleSystem = "Used by macOS. Usually rebuilt, but a system service may "
                                    "misbehave until it recreates it or you restart.";
    struct Row {
        std::string name;
        std::string title;
        std::string tier;
        bool isSelected;
        std::string userNote;
        std::string systemNote;
    };
    const Row rows[] = {
        {"Com.apple.x", "Com.apple.x", "safe", true, "", ""},
        {"bad\xff\xfename", "bad\xff\xfename", "safe", true, "", ""},
        {"com.apple.Music", "com.apple.Music", "review", false, running, running},
        {"com.apple.Safari", "com.apple.Safari", "review", false, appleUser, appleSystem},
        {"com.appleseed", "com.appleseed", "safe", true, "", ""},
        {"org.example.open", "Open", "safe", false, running, running},
    };
    const TemporaryTree home;
    std::vector<std::string> user;
    std::vector<std::string> system;
    for (const auto &row : rows) {
        home.add({"Library/Caches/" + row.name + "/data", bytes(9000)});
        const auto path = "$/Library/Caches/" + row.name;
        const auto what = "contents " + path + " | $/Library/Caches | " + row.tier +
                          (row.isSelected ? " selected" : "");
        user.push_back("user-caches:" + row.name + " | " + row.title + " | ~/Library/Caches/" +
                       row.name + " | " + what + " |  | " + row.userNote);
        system.push_back("system-caches:" + row.name + " | " + row.title + " | " + path + " | " +
                         what + " permanent privileged |  | " + row.systemNote);
    }
    auto context = scanContext(home.root());
    context.environment.runningBundleIDs = {"org.example.open", "com.apple.Music"};
    context.environment.installedAppName = [](std::string_view id) {
        return id == "org.example.open" ? std::optional<std::string>("Open") : std::nullopt;
    };
    const SystemCachesScanner systemCaches(home / "Library/Caches");
    EXPECT_EQ(lines(UserCachesScanner().scan(context, {}), home), user);
    EXPECT_EQ(lines(systemCaches.scan(context, {}), home), system);
    EXPECT_THAT(UserCachesScanner().scan(context, stopped()).items, IsEmpty());
    EXPECT_THAT(systemCaches.scan(context, stopped()).items, IsEmpty());
}

TEST(UserCachesScanner, leavesOutDeveloperToolsAndTheProgramItself) {
    const TemporaryTree home;
    for (const char *name : {"Homebrew",
                             "Yarn",
                             "pip",
                             "pypoetry",
                             "CocoaPods",
                             "ms-playwright",
                             "node-gyp",
                             "go-build",
                             "JetBrains",
                             "org.swift.swiftpm",
                             "pnpm",
                             "deno",
                             "electron",
                             "electron-builder",
                             "typescript",
                             "Cypress",
                             "com.github.xcpretty",
                             "org.example.own",
                             "yarn",
                             "org.example.own.beta"}) {
        home.add({std::string("Library/Caches/") + name + "/data", bytes(9000)});
    }
    const auto scan = UserCachesScanner("org.example.own").scan(scanContext(home.root()), {});
    EXPECT_THAT(titles(scan), UnorderedElementsAre("yarn", "org.example.own.beta"));
}

/// Folders stay and files go, largest first, down to the minimum and not below it.
TEST(EntryScanners, offerFilesAndFoldersLargestFirst) {
    const TemporaryTree home{
        {"Library/Logs/b", bytes(20'000)},
        {"Library/Logs/a", bytes(20'000)},
        {"Library/Logs/DiagnosticReports/data", bytes(200'000)},
        {"Library/Logs/.DS_Store", bytes(20'000)},
        {"Library/Logs/none", bytes(0)},
        {"Library/Caches", link("Logs")},
    };
    auto context = scanContext(home.root());
    const std::string root = " | $/Library/Logs | safe selected |  | ";
    EXPECT_THAT(lines(LogsScanner().scan(context, {}), home),
                ElementsAre("logs:DiagnosticReports | DiagnosticReports | "
                            "~/Library/Logs/DiagnosticReports | "
                            "contents $/Library/Logs/DiagnosticReports" +
                                root,
                            "logs:a | a | ~/Library/Logs/a | item $/Library/Logs/a" + root,
                            "logs:b | b | ~/Library/Logs/b | item $/Library/Logs/b" + root));
    EXPECT_THAT(titles(UserCachesScanner().scan(context, {})),
                ElementsAre("DiagnosticReports", "a", "b"));
    context.minimumSize = DiskUsage::allocatedSize(home / "Library/Logs/a");
    EXPECT_EQ(LogsScanner().scan(context, {}).items.size(), 3U);
    context.minimumSize += 1;
    EXPECT_EQ(LogsScanner().scan(context, {}).items.size(), 1U);
    EXPECT_THAT(LogsScanner().scan(context, stopped()).items, IsEmpty());
}

/// A link is measured and removed as itself where root removes it; elsewhere it is offered as what
/// it leads to, for the cleaner to refuse.
TEST(EntryScanners, measureLinksAsThemselves) {
    const TemporaryTree home{{"far/data", bytes(400'000)}};
    // Long enough that file systems give the link a block of its own.
    home.add({"Library/Caches/linked", link("../.." + std::string(200, '/') + "far")});
    const auto context = scanContext(home.root());
    if (DiskUsage::allocatedSize(home / "Library/Caches/linked") == 0) {
        GTEST_SKIP() << "needs a file system that gives links blocks";
    }
    EXPECT_THAT(lines(UserCachesScanner().scan(context, {}), home),
                ElementsAre(testing::HasSubstr("| contents $/Library/Caches/linked |")));
    EXPECT_THAT(lines(SystemCachesScanner(home / "Library/Caches").scan(context, {}), home),
                ElementsAre(testing::HasSubstr("| item $/Library/Caches/linked |")));
}

TEST(TrashScanner, offersTheHomeTrashAndThoseOfOtherVolumes) {
    const auto user = std::to_string(::getuid());
    const TemporaryTree tree{
        {"home/.Trash/old", bytes(5000)},
        {"V/Zip/.Trashes/" + user + "/a", bytes(90'000)},
        {"V/Backup/.Trashes/" + user + "/a", bytes(5000)},
        {"V/Empty/.Trashes/" + user + "/.DS_Store", bytes(5000)},
        {"V/Other/.Trashes/" + user + "1/a", bytes(5000)},
        {"V/Plain", bytes(5000)},
        {"V/Startup", link("/")},
        {"V/Gone", link("nowhere")},
    };
    auto context = scanContext(tree / "home");
    const auto expected = [](const std::string &title, const std::string &path,
                             const std::string &detail) {
        return "trash:" + path + " | " + title + " | " + detail + " | contents " + path + " | " +
               path + " | review permanent |  | Deleted permanently. This can't be undone.";
    };
    const auto backup = "$/V/Backup/.Trashes/" + user;
    const auto zip = "$/V/Zip/.Trashes/" + user;
    const auto scan = TrashScanner(tree / "V").scan(context, {});
    EXPECT_THAT(lines(scan, tree), ElementsAre(expected("Trash", "$/home/.Trash", "~/.Trash"),
                                               expected("Trash on Backup", backup, backup),
                                               expected("Trash on Zip", zip, zip)));
    EXPECT_THAT(scan.issues, IsEmpty());
    context.minimumSize = 50'000;
    EXPECT_THAT(titles(TrashScanner(tree / "V").scan(context, stopped())),
                ElementsAre("Trash on Zip"))
        << "a Trash is measured whole, however soon the scan is stopped";
}

TEST(TrashScanner, reportsEveryTrashItCannotRead) {
    const auto mine = ".Trashes/" + std::to_string(::getuid());
    const TemporaryTree tree{
        {"home/.Trash", bytes(5000)},
        {"V/A/" + mine, bytes(5000)},
        {"V/B/" + mine + "/a", bytes(5000)},
    };
    const auto scan = TrashScanner(tree / "V").scan(scanContext(tree / "home"), {});
    EXPECT_THAT(titles(scan), ElementsAre("Trash on B"));
    ASSERT_EQ(scan.issues.size(), 2U);
    EXPECT_TRUE(std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));
}

TEST(InstallersScanner, offersInstallersWithTheirAge) {
    struct Row {
        std::string name;
        std::chrono::microseconds age;
        std::string note; ///< empty: not offered
    };
    const Row rows[] = {
        {"Tool.PKG", 48h, "Downloaded 2 days ago"},
        {"a.dmg", 23h, "Downloaded today"},
        {"archive.zip", 0h, ""},
        {"b.pkg", 24h, "Downloaded 1 days ago"},
        {"c.mpkg", 240h, "Downloaded 10 days ago"},
        {"d.xip", -48h, "Downloaded today"},
        {"dmg", 0h, ""},
        {"e.Iso", 48h - 1us, "Downloaded 1 days ago"},
        {"notes.dmg.txt", 0h, ""},
        {"x.", 0h, ""},
    };
    const TemporaryTree home{{"Downloads/sub/inner.dmg", bytes(5000)},
                             {"Downloads/folder.pkg/Contents/data", bytes(90'000)}};
    std::vector<std::string> expected;
    for (const auto &[name, age, note] : rows) {
        home.add({"Downloads/" + name, bytes(5000), scanTime - age});
        if (!note.empty()) {
            expected.push_back("installers:" + name + " | " + name + " | ~/Downloads/" + name +
                               " | item $/Downloads/" + name + " | $/Downloads | review |  | " +
                               note);
        }
    }
    auto scan = InstallersScanner().scan(scanContext(home.root()), stopped());
    ASSERT_EQ(titles(scan).at(0), "folder.pkg") << "a package folder is measured as a whole";
    scan.items.erase(scan.items.begin());
    EXPECT_EQ(lines(scan, home), expected);
}

TEST(MailDownloadsScanner, offersTheFolderAsOneItem) {
    const std::string folder = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads";
    const TemporaryTree home{{folder + "/.DS_Store", bytes(5000)}};
    auto context = scanContext(home.root());
    EXPECT_THAT(MailDownloadsScanner().scan(context, {}).items, IsEmpty());
    home.add({folder + "/A1/photo.jpg", bytes(50'000)});
    EXPECT_THAT(lines(MailDownloadsScanner().scan(context, stopped()), home),
                ElementsAre("mail-downloads | Opened Mail attachments | ~/" + folder +
                            " | contents $/" + folder + " | $/" + folder +
                            " | leftover |  | Attachments stay in your mailbox and download again "
                            "when opened."));
    context.minimumSize = DiskUsage::allocatedSize(home / folder) + 1;
    EXPECT_THAT(MailDownloadsScanner().scan(context, {}).items, IsEmpty());
}

} // namespace
} // namespace klarbox::test
