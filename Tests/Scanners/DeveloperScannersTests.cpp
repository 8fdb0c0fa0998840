#include "KlarboxKit/Scanners/AISessionsScanner.hpp"
#include "KlarboxKit/Scanners/PackageCachesScanner.hpp"
#include "KlarboxKit/Scanners/XcodeScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(PackageCachesScanner, offersKnownFoldersByContents) {
    const TemporaryTree home{
        {".m2/repository/a", bytes(300'000)},
        {".cache/puppeteer/a", bytes(200'000)},
        {"Library/Caches/pip", longLink(".m2")},
    };
    addFiles(home, "",
             ".local/share/pnpm/store/a Library/pnpm/store/a .npm/_cacache/a "
             ".cargo/registry/src/a .cache/uv");
    EXPECT_EQ(offers(PackageCachesScanner(), scanContext(home.root()), home.root()), R"(
package-caches:. | Maven repository | ~ | contents $/.m2/repository | @ | [ ] review
    Every Java dependency you've downloaded.
    Rebuilding projects downloads them again.
package-caches:. | Puppeteer browsers | ~ | contents $/.cache/puppeteer | @ | [ ] leftover
    Test browsers.
    Puppeteer downloads them again when needed.
package-caches:. | npm cache | ~ | contents $/.npm/_cacache | @ | [x] safe
package-caches:. | pnpm store | ~ | contents $/Library/pnpm/store | @ | [x] safe
    Projects relink their packages on the next install.
package-caches:. | pnpm store | ~ | contents $/.local/share/pnpm/store | @ | [x] safe
    Projects relink their packages on the next install.)");
}

TEST(PackageCachesScanner, warnsWhileGradleRuns) {
    const TemporaryTree home{{".gradle/caches/a", bytes(9000)}, {".gradle/daemon/a", bytes(5000)}};
    auto context = scanContext(home.root());
    context.environment.runningCommandLines = {"/bin/ls", "/usr/bin/gradledaemon"};
    EXPECT_EQ(offers(PackageCachesScanner(), context, home.root()), R"(
package-caches:. | Gradle caches | ~ | contents $/.gradle/caches | @ | [x] safe
package-caches:. | Gradle daemon logs | ~ | contents $/.gradle/daemon | @ | [x] safe)");
    context.environment.runningCommandLines[1] = "java -cp x org.gradle.daemon.GradleDaemon 8.5";
    for (const auto &item : PackageCachesScanner().scan(context, {}).items) {
        EXPECT_EQ(item.note, "Gradle is running. Stop it first (./gradlew --stop) or a build may "
                             "fail mid-way.");
        EXPECT_FALSE(item.isSelectedByDefault);
    }
}

TEST(PackageCachesScanner, keepsFoldersOfTheNpxCacheThatAreInUse) {
    const TemporaryTree home;
    addFiles(home, ".npm/_npx/", "aa/data bb/data bbc/data");
    home.add({".npm/_npx/bbc/shared", hardLink(".npm/_npx/aa/data")});
    const struct {
        const char *inUse;
        const char *offered;
        const char *note = "";
    } rows[] = {
        {"", "aa bb bbc"},
        {"bb/", "aa bbc", "\n    Keeping 1 in use by running tools."},
        {"bb aa/x", "bb bbc", "\n    Keeping 1 in use by running tools."},
        {"bb/ aa/ bb/y", "bbc", "\n    Keeping 2 in use by running tools."},
        {"aa/ bb/ bbc/", ""},
    };
    for (const auto &[inUse, offered, note] : rows) {
        auto context = scanContext(home.root());
        for (const auto &path : words(inUse)) {
            context.environment.runningCommandLines.push_back(
                fmt::format("node {}/{}", (home / ".npm/_npx").path(), path));
        }
        std::string expected;
        for (const auto &name : words(offered)) {
            expected += "\n    + " + name;
        }
        if (!expected.empty()) {
            expected = "\npackage-caches:npx | npx cache | ~ | items | @ | [x] safe" + expected;
        }
        EXPECT_EQ(offers(PackageCachesScanner(), context, home.root()), expected + note);
    }
}

TEST(XcodeScanner, findsWhatXcodeRebuilds) {
    const TemporaryTree home;
    const std::string xcode = "Library/Developer/Xcode/";
    home.add({xcode + "DerivedData/My-App-bqwxhfyz/a", bytes(400'000)});
    home.add({xcode + "DerivedData/linked", link("../Archives")});
    home.add({xcode + "watchOS DeviceSupport/10.2 (21S)/a", bytes(300'000)});
    home.add({xcode + "watchOS devicesupport/9/a", bytes(300'000)});
    home.add({xcode + "Archives/24/A 1.2.xcarchive/a", bytes(200'000)});
    home.add({xcode + "DocumentationCache", longLink("Developer")});
    addFiles(home, "Library/Developer/",
             "CoreSimulator/Caches/a Xcode/DerivedData/info.plist Xcode/Archives/24/notes.txt "
             "Xcode/Archives/24/Old.XCARCHIVE/a Xcode/Archives/loose.xcarchive");
    EXPECT_EQ(offers(XcodeScanner(), scanContext(home.root()), home / "Library/Developer"), R"(
xcode:@ | My-App | ~ | item $/Xcode/DerivedData/My-App-bqwxhfyz | .. | [x] safe
    Derived Data: Rebuilt the next time you build.
xcode:@ | watchOS 10.2 (21S) | ~ | item $/Xcode/watchOS DeviceSupport/10.2 (21S) | .. | [x] safe
    Device Support: Copied again the next time you connect a device running this version.
xcode:@ | A 1.2 (24) | ~ | item $/Xcode/Archives/24/A 1.2.xcarchive | $/Xcode/Archives | [ ] review
    Archives: Holds the debug symbols needed to read crash reports for this build.
xcode:CoreSimulator/Caches | Simulator caches | ~ | contents $/CoreSimulator/Caches | @ | [x] safe
    Caches: Rebuilt automatically.)");
}

TEST(XcodeScanner, keepsDiscoveryOrderAmongEqualSizes) {
    const TemporaryTree home;
    for (const char *path : {"iOS Device Logs/a", "UserData/Previews/a", "iOS DeviceSupport/17/a",
                             "xrOS DeviceSupport/1/a", "macOS DeviceSupport/14/a",
                             "DerivedData/ModuleCache.noindex/a"}) {
        home.add({std::string("Library/Developer/Xcode/") + path, bytes(9000)});
    }
    EXPECT_THAT(titles(XcodeScanner().scan(scanContext(home.root()), {})),
                ElementsAre("Module cache", "iOS 17", "macOS 14", "xrOS 1", "SwiftUI preview data",
                            "Device logs"));
}

TEST(XcodeScanner, namesProjectsWithoutTheirHash) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"Foo", "Foo"},
        {"MyApp-abcdefg", "MyApp-abcdefg"},
        {"Build-1234567890", "Build-1234567890"},
        {"MyApp-abcdefgH", "MyApp-abcdefgH"},
        {"-abcdefgh", ""},
        {"MyApp-éééééééé", "MyApp"},
        {"MyApp-éééé", "MyApp-éééé"},
        {"MyApp-e\u0301e\u0301e\u0301e\u0301", "MyApp-e\u0301e\u0301e\u0301e\u0301"},
        {"MyApp-abcdefgh\xff", "MyApp-abcdefgh\xff"},
        {"bad\xff-abcdefgh", "bad\xff"},
    };
    for (const auto &[folder, project] : rows) {
        EXPECT_EQ(XcodeScanner::projectName(folder), project);
    }
}

TEST(AISessionsScanner, offersOldLogsOfEachToolTogether) {
    const std::string projects = ".claude/projects/";
    const auto cutoff = daysAgo(60);
    const auto old = daysAgo(90);
    const TemporaryTree home{
        {projects + "b/older.jsonl", bytes(9000), cutoff - 1us},
        {projects + "b/edge.jsonl", bytes(9000), cutoff},
        {projects + "a.jsonl", bytes(9000), old},
        {projects + "aged/new.jsonl", bytes(9000), scanTime},
        {projects + "aged", directory(), old},
        {projects + "linked", link("../../elsewhere"), old},
        {projects + "fresh", link("../../elsewhere"), scanTime},
        {"elsewhere/old.jsonl", bytes(90'000), old},
        {projects + "1/2/3/4/5/6/7/deep.jsonl", bytes(9000), old},
        {projects + "1/2/3/4/5/6/7/8/deeper.jsonl", bytes(9000), old},
        {".codex/archived_sessions/one", bytes(5000), old},
        {".codex/sessions/new", bytes(9000), scanTime},
    };
    const auto context = scanContext(home.root());
    // The search does not stop, so the item names every file even of a scan that does.
    for (const auto &stop : {std::stop_token(), stopped()}) {
        EXPECT_EQ(offers(AISessionsScanner(), context, home.root(), stop), R"(
ai-sessions:. | Claude Code sessions | ~ | items | @ | [ ] review
    + 1/2/3/4/5/6/7/deep.jsonl
    + a.jsonl
    + b/older.jsonl
    + linked
    4 log files older than 60 days.
    You'd lose the ability to resume those sessions.
ai-sessions:. | Codex archived sessions | ~ | items | @ | [ ] review
    + one
    1 log file older than 60 days.
    You'd lose the ability to resume those sessions.)");
    }
}

/// Each of these scanners applies where any of its folders is, links followed.
TEST(DeveloperScanners, areRelevantWhereTheirFoldersExist) {
    const std::tuple<std::shared_ptr<const CategoryScanner>, std::string, std::string> rows[] = {
        {std::make_shared<PackageCachesScanner>(), ".npm/other", ".npm/_npx .cache/uv"},
        {std::make_shared<XcodeScanner>(), "Library/Developer/Other",
         "Library/Developer/Xcode Library/Developer/CoreSimulator"},
        {std::make_shared<AISessionsScanner>(), ".codex/other", ".claude/projects .codex/sessions"},
    };
    for (const auto &[scanner, noReason, reasons] : rows) {
        for (const auto &path : words(reasons)) {
            const TemporaryTree home{{noReason, directory()}};
            EXPECT_FALSE(scanner->isRelevant(scanContext(home.root())));
            home.add({path, link((home / noReason).path())});
            EXPECT_TRUE(scanner->isRelevant(scanContext(home.root()))) << path;
        }
    }
}

} // namespace
} // namespace klarbox::test
