#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"
#include "KlarboxKit/Scanners/UserCachesScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string runningNote =
    "The app is running. Quit it first so it doesn't recreate files while cleaning.";

ScanContext cachesContext(const FileURL &home) {
    auto context = scanContext(home);
    context.environment.runningBundleIDs = {"org.example.open", "com.apple.Music"};
    context.environment.installedAppName = [](std::string_view id) {
        return id == "org.example.open" ? std::optional<std::string>("Open") : std::nullopt;
    };
    return context;
}

/// Both scanners judge an entry by whose it is and whether that application runs.
TEST(CacheScanners, judgeEntriesByTheirApplication) {
    const std::string userNote =
        "Used by macOS and Apple apps. Usually rebuilt, but some may sign you out or reset state.";
    const std::string systemNote = "Used by macOS. Usually rebuilt, but a system service may "
                                   "misbehave until it recreates it or you restart.";
    struct Row {
        std::string name;
        std::string title;
        SafetyTier tier;
        bool isRunning;
        bool isSelected;
    };
    const Row rows[] = {
        {"org.example.closed", "org.example.closed", SafetyTier::safe, false, true},
        {"org.example.open", "Open", SafetyTier::safe, true, false},
        {"com.apple.Safari", "com.apple.Safari", SafetyTier::review, false, false},
        {"com.apple.Music", "com.apple.Music", SafetyTier::review, true, false},
        {"com.appleseed", "com.appleseed", SafetyTier::safe, false, true},
        {"Com.apple.x", "Com.apple.x", SafetyTier::safe, false, true},
        {"bad\xff\xfename", "bad\xff\xfename", SafetyTier::safe, false, true},
    };
    const TemporaryTree home;
    for (const auto &row : rows) {
        home.add({"Library/Caches/" + row.name + "/data", bytes(9000)});
    }
    const auto caches = home / "Library/Caches";
    const auto user = UserCachesScanner().scan(cachesContext(home.root()), {});
    const auto system = SystemCachesScanner(caches).scan(cachesContext(home.root()), {});
    EXPECT_EQ(user.items.size(), std::size(rows));
    EXPECT_EQ(system.items.size(), std::size(rows));
    for (const auto &row : rows) {
        for (const auto *scan : {&user, &system}) {
            const bool isUser = scan == &user;
            const auto &item = itemWithID(*scan, scan->id() + ":" + row.name);
            const auto &appleNote = isUser ? userNote : systemNote;
            EXPECT_EQ(item.title, row.title);
            EXPECT_EQ(item.tier, row.tier);
            EXPECT_EQ(item.note, row.isRunning                    ? std::optional(runningNote)
                                 : row.tier == SafetyTier::review ? std::optional(appleNote)
                                                                  : std::nullopt);
            EXPECT_EQ(item.isSelectedByDefault, row.isSelected);
            EXPECT_EQ(item.target, KlarboxTarget::contents(caches.appending(row.name)));
            EXPECT_EQ(item.allowedRoot, caches);
            EXPECT_EQ(item.detail,
                      isUser ? "~/Library/Caches/" + row.name : caches.path() + "/" + row.name);
            EXPECT_EQ(item.requiresPrivileges, !isUser);
            EXPECT_EQ(item.removalPolicy,
                      isUser ? RemovalPolicy::userChoice : RemovalPolicy::permanentOnly);
        }
    }
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

/// Sizes decide the order; a link is measured itself and, in system folders, removed itself.
TEST(CacheScanners, offerFilesLinksAndFoldersLargestFirst) {
    const TemporaryTree home{
        {"Library/Caches/b", bytes(20'000)},         {"Library/Caches/a", bytes(20'000)},
        {"Library/Caches/big/data", bytes(200'000)}, {"Library/Caches/.DS_Store", bytes(20'000)},
        {"Library/Caches/none", bytes(0)},           {"elsewhere/data", bytes(400'000)},
    };
    // Long enough that file systems give the link a block of its own.
    home.add({"Library/Caches/linked", link("../../" + std::string(150, '/') + "elsewhere")});
    auto context = scanContext(home.root());
    const auto caches = home / "Library/Caches";
    for (const auto &scan :
         {UserCachesScanner().scan(context, {}), SystemCachesScanner(caches).scan(context, {})}) {
        ASSERT_GE(scan.items.size(), 3U);
        EXPECT_THAT(std::vector(scan.items.begin(), scan.items.begin() + 3),
                    ElementsAre(testing::Field(&KlarboxItem::title, "big"),
                                testing::Field(&KlarboxItem::title, "a"),
                                testing::Field(&KlarboxItem::title, "b")));
        EXPECT_EQ(scan.items[1].target, KlarboxTarget::item(caches.appending("a")));
        for (const auto &item : scan.items) {
            EXPECT_LT(item.size, 400'000);
            if (item.title == "linked") {
                const auto url = caches.appending("linked");
                EXPECT_EQ(item.target, scan.id() == "system-caches" ? KlarboxTarget::item(url)
                                                                    : KlarboxTarget::contents(url));
            }
        }
    }
    context.minimumSize = 100'000;
    EXPECT_THAT(titles(UserCachesScanner().scan(context, {})), ElementsAre("big"));
    EXPECT_THAT(titles(UserCachesScanner().scan(context, stopped())), IsEmpty());
    EXPECT_THAT(titles(SystemCachesScanner(caches).scan(context, stopped())), IsEmpty());
}

TEST(CacheScanners, sayWhyAHomeCannotBeListedAndKeepSilentAboutTheSystem) {
    {
        const TemporaryTree home;
        const auto scan = UserCachesScanner().scan(scanContext(home.root()), {});
        EXPECT_EQ(scan, (CategoryScan{.info = scan.info}));
    }
    {
        const TemporaryTree home{{"Library/Caches", bytes(10)}};
        const auto scan = UserCachesScanner().scan(scanContext(home.root()), {});
        EXPECT_THAT(scan.items, IsEmpty());
        ASSERT_EQ(scan.issues.size(), 1U);
        EXPECT_TRUE(std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));
        const auto system =
            SystemCachesScanner(home / "Library/Caches").scan(scanContext(home.root()), {});
        EXPECT_EQ(system, (CategoryScan{.info = system.info}));
    }
}

} // namespace
} // namespace klarbox::test
