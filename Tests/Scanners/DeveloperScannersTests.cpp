#include "KlarboxKit/Scanners/AISessionsScanner.hpp"
#include "KlarboxKit/Scanners/PackageCachesScanner.hpp"
#include "KlarboxKit/Scanners/XcodeScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(PackageCachesScanner, offersKnownFoldersByContents) {
    const TemporaryTree home{
        {".m2/repository/a", bytes(300'000)},
        {"Library/Caches/ms-playwright/a", bytes(200'000)},
        {"Library/pnpm/store/a", bytes(9000)},
        {".local/share/pnpm/store/a", bytes(9000)},
        {".npm/_cacache/a", bytes(9000)},
        {".cargo/registry/src/a", bytes(9000)},
        {".cache/uv", bytes(9000)},
        {"big/a", bytes(900'000)},
        {".gradle/caches", link("../big")},
    };
    const auto expected = [](std::string title, const std::string &path, const std::string &rest) {
        return "package-caches:" + path + " | " + std::move(title) + " | ~/" + path +
               " | contents $/" + path + " | $/" + path + " | " + rest;
    };
    const std::string relinked =
        "safe selected |  | Projects relink their packages on the next install.";
    auto context = scanContext(home.root());
    const auto scan = PackageCachesScanner().scan(context, {});
    EXPECT_THAT(lines(scan, home),
                ElementsAre(expected("Maven repository", ".m2/repository",
                                     "review |  | Every Java dependency you've downloaded. "
                                     "Rebuilding projects downloads them again."),
                            expected("Playwright browsers", "Library/Caches/ms-playwright",
                                     "leftover |  | Test browsers. Playwright downloads them again "
                                     "before the next test run."),
                            expected("npm cache", ".npm/_cacache", "safe selected |  | "),
                            expected("pnpm store", "Library/pnpm/store", relinked),
                            expected("pnpm store", ".local/share/pnpm/store", relinked)));
    context.minimumSize = scan.items[1].size;
    EXPECT_EQ(PackageCachesScanner().scan(context, {}).items.size(), 2U);
    context.minimumSize += 1;
    EXPECT_EQ(PackageCachesScanner().scan(context, {}).items.size(), 1U);
    EXPECT_THAT(PackageCachesScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(PackageCachesScanner, warnsWhileGradleRuns) {
    const TemporaryTree home{{".gradle/caches/a", bytes(9000)}, {".gradle/daemon/a", bytes(5000)}};
    const std::string busy =
        "Gradle is running. Stop it first (./gradlew --stop) or a build may fail mid-way.";
    for (const auto &[commandLine, isBusy] :
         {std::pair("/usr/bin/gradledaemon", false),
          std::pair("/usr/bin/java -cp x org.gradle.launcher.daemon.GradleDaemon 8.5", true)}) {
        auto context = scanContext(home.root());
        context.environment.runningCommandLines = {"/bin/ls", commandLine};
        const auto scan = PackageCachesScanner().scan(context, {});
        ASSERT_EQ(scan.items.size(), 2U);
        for (const auto &item : scan.items) {
            EXPECT_EQ(item.note, isBusy ? std::optional(busy) : std::nullopt);
            EXPECT_EQ(item.isSelectedByDefault, !isBusy);
        }
    }
}

TEST(PackageCachesScanner, keepsFoldersOfTheNpxCacheThatAreInUse) {
    const TemporaryTree home{
        {".npm/_npx/aa/data", bytes(9000)},
        {".npm/_npx/bb/data", bytes(9000)},
        {".npm/_npx/bbc/data", bytes(9000)},
        {".npm/_npx/bbc/shared", hardLink(".npm/_npx/aa/data")},
    };
    struct Row {
        std::vector<std::string> inUse;
        std::string offered;
        std::string note;
    };
    const Row rows[] = {
        {{}, " $/.npm/_npx/aa $/.npm/_npx/bb $/.npm/_npx/bbc", ""},
        {{"bb/"}, " $/.npm/_npx/aa $/.npm/_npx/bbc", "Keeping 1 in use by running tools."},
        {{"bb", "aa/x"}, " $/.npm/_npx/bb $/.npm/_npx/bbc", "Keeping 1 in use by running tools."},
        {{"bb/", "aa/", "bb/y"}, " $/.npm/_npx/bbc", "Keeping 2 in use by running tools."},
        {{"aa/", "bb/", "bbc/"}, "", ""},
    };
    for (const auto &row : rows) {
        auto context = scanContext(home.root());
        for (const auto &path : row.inUse) {
            context.environment.runningCommandLines.push_back(
                "node " + (home / ".npm/_npx").path() + "/" + path);
        }
        std::vector<std::string> expected;
        if (!row.offered.empty()) {
            expected.push_back("package-caches:npx | npx cache | ~/.npm/_npx | items" +
                               row.offered + " | $/.npm/_npx | safe selected |  | " + row.note);
        }
        EXPECT_EQ(lines(PackageCachesScanner().scan(context, {}), home), expected);
    }
}

TEST(XcodeScanner, findsWhatXcodeRebuilds) {
    const std::string xcode = "Library/Developer/Xcode/";
    const TemporaryTree home{
        {xcode + "DerivedData/MyApp-bqwxhfyzkjatlqdoekrsbhgvzmsi/a", bytes(400'000)},
        {xcode + "DerivedData/info.plist", bytes(9000)},
        {xcode + "DerivedData/linked", link("../Archives")},
        {xcode + "watchOS DeviceSupport/10.2 (21S364)/a", bytes(300'000)},
        {xcode + "watchOS devicesupport/9/a", bytes(300'000)},
        {xcode + "Archives/2024-01-05/My.App 5-1-24, 10.31.xcarchive/a", bytes(200'000)},
        {xcode + "Archives/2024-01-05/notes.txt", bytes(200'000)},
        {xcode + "Archives/2024-01-05/Old.XCARCHIVE/a", bytes(200'000)},
        {xcode + "Archives/loose.xcarchive", bytes(200'000)},
        {"Library/Developer/CoreSimulator/Caches/a", bytes(100'000)},
        {xcode + "DocumentationCache", link("Archives")},
    };
    const auto expected = [&](const std::string &title, const std::string &root,
                              const std::string &name, const std::string &rest) {
        const auto path = xcode + root + "/" + name;
        return "xcode:$/" + path + " | " + title + " | ~/" + path + " | item $/" + path + " | $/" +
               xcode + root + " | " + rest;
    };
    auto context = scanContext(home.root());
    const auto scan = XcodeScanner().scan(context, {});
    const std::string caches = "$/Library/Developer/CoreSimulator/Caches";
    EXPECT_THAT(
        lines(scan, home),
        ElementsAre(
            expected("MyApp", "DerivedData", "MyApp-bqwxhfyzkjatlqdoekrsbhgvzmsi",
                     "safe selected | Derived Data | Rebuilt the next time you build."),
            expected("watchOS 10.2 (21S364)", "watchOS DeviceSupport", "10.2 (21S364)",
                     "safe selected | Device Support | Copied again the next time you connect a "
                     "device running this version."),
            expected("My.App 5-1-24, 10.31 (2024-01-05)", "Archives",
                     "2024-01-05/My.App 5-1-24, 10.31.xcarchive",
                     "review | Archives | Holds the debug symbols needed to read crash reports for "
                     "this build."),
            "xcode:CoreSimulator/Caches | Simulator caches | "
            "~/Library/Developer/CoreSimulator/Caches | contents " +
                caches + " | " + caches + " | safe selected | Caches | Rebuilt automatically."));
    context.minimumSize = scan.items.at(2).size + 1;
    EXPECT_EQ(XcodeScanner().scan(context, {}).items.size(), 2U);
    EXPECT_THAT(XcodeScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(XcodeScanner, keepsDiscoveryOrderAmongEqualSizes) {
    const TemporaryTree home{
        {"Library/Developer/Xcode/iOS Device Logs/a", bytes(9000)},
        {"Library/Developer/Xcode/UserData/Previews/a", bytes(9000)},
        {"Library/Developer/Xcode/iOS DeviceSupport/17/a", bytes(9000)},
        {"Library/Developer/Xcode/xrOS DeviceSupport/1/a", bytes(9000)},
        {"Library/Developer/Xcode/macOS DeviceSupport/14/a", bytes(9000)},
        {"Library/Developer/Xcode/DerivedData/ModuleCache.noindex/a", bytes(9000)},
    };
    EXPECT_THAT(titles(XcodeScanner().scan(scanContext(home.root()), {})),
                ElementsAre("Module cache", "iOS 17", "macOS 14", "xrOS 1", "SwiftUI preview data",
                            "Device logs"));
}

TEST(XcodeScanner, namesProjectsWithoutTheirHash) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"Foo", "Foo"},
        {"My-Tool-abcdefgh", "My-Tool"},
        {"MyApp-abcdefg", "MyApp-abcdefg"},
        {"Build-1234567890", "Build-1234567890"},
        {"MyApp-abcdefgH", "MyApp-abcdefgH"},
        {"MyApp-", "MyApp-"},
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
        {projects + "b/old.jsonl", bytes(9000), cutoff - 1s},
        {projects + "b/older.jsonl", bytes(9000), cutoff - 1us},
        {projects + "b/edge.jsonl", bytes(9000), cutoff},
        {projects + "b/new.jsonl", bytes(9000), scanTime},
        {projects + "a.jsonl", bytes(9000), old},
        {projects + "aged/new.jsonl", bytes(9000), scanTime},
        {projects + "aged", directory(), old},
        {projects + "linked", link("../../elsewhere"), old},
        {projects + "fresh", link("../../elsewhere"), scanTime},
        {"elsewhere/old.jsonl", bytes(90'000), old},
        {projects + "1/2/3/4/5/6/7/deep.jsonl", bytes(9000), old},
        {projects + "1/2/3/4/5/6/7/8/deeper.jsonl", bytes(9000), old},
        {".codex/archived_sessions/one", bytes(9000), old},
        {".codex/sessions/new", bytes(9000), scanTime},
    };
    const std::string rest =
        " older than 60 days. You'd lose the ability to resume those sessions.";
    const std::string root = "$/.claude/projects";
    auto context = scanContext(home.root());
    // The search does not stop, so the item names every file even of a scan that does.
    for (const auto &stop : {std::stop_token(), stopped()}) {
        EXPECT_THAT(
            lines(AISessionsScanner().scan(context, stop), home),
            ElementsAre("ai-sessions:.claude/projects | Claude Code sessions | ~/.claude/projects "
                        "| items " +
                            root + "/1/2/3/4/5/6/7/deep.jsonl " + root + "/a.jsonl " + root +
                            "/b/old.jsonl " + root + "/b/older.jsonl " + root + "/linked | " +
                            root + " | review |  | 5 log files" + rest,
                        "ai-sessions:.codex/archived_sessions | Codex archived sessions | "
                        "~/.codex/archived_sessions | items $/.codex/archived_sessions/one | "
                        "$/.codex/archived_sessions | review |  | 1 log file" +
                            rest));
    }
    context.minimumSize = DiskUsage::allocatedSize(home / ".codex/archived_sessions/one") + 1;
    EXPECT_EQ(AISessionsScanner().scan(context, {}).items.size(), 1U);
}

/// Each of these scanners applies where any of its folders is, links followed.
TEST(DeveloperScanners, areRelevantWhereTheirFoldersExist) {
    struct Row {
        std::shared_ptr<const CategoryScanner> scanner;
        std::string near; ///< no reason to be relevant
        std::vector<std::string> paths;
    };
    const Row rows[] = {
        {std::make_shared<PackageCachesScanner>(), ".npm/other", {".npm/_npx", ".cache/uv"}},
        {std::make_shared<XcodeScanner>(),
         "Library/Developer/Other",
         {"Library/Developer/Xcode", "Library/Developer/CoreSimulator"}},
        {std::make_shared<AISessionsScanner>(),
         ".codex/other",
         {".claude/projects", ".codex/sessions", ".codex/archived_sessions"}},
    };
    for (const auto &[scanner, near, paths] : rows) {
        for (const auto &path : paths) {
            const TemporaryTree home{{near, directory()}};
            EXPECT_FALSE(scanner->isRelevant(scanContext(home.root())));
            home.add({path, link((home / near).path())});
            EXPECT_TRUE(scanner->isRelevant(scanContext(home.root()))) << path;
        }
    }
}

} // namespace
} // namespace klarbox::test
