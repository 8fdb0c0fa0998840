#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/PackageCachesScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string busyNote =
    "Gradle is running. Stop it first (./gradlew --stop) or a build may fail mid-way.";

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
    auto context = scanContext(home.root());
    const auto scan = PackageCachesScanner().scan(context, {});
    ASSERT_THAT(ids(scan),
                ElementsAre("package-caches:.m2/repository",
                            "package-caches:Library/Caches/ms-playwright",
                            "package-caches:.npm/_cacache", "package-caches:Library/pnpm/store",
                            "package-caches:.local/share/pnpm/store"));
    EXPECT_EQ(scan.items[0].tier, SafetyTier::review);
    EXPECT_FALSE(scan.items[0].isSelectedByDefault);
    EXPECT_EQ(scan.items[1].tier, SafetyTier::leftover);
    EXPECT_FALSE(scan.items[1].isSelectedByDefault);
    EXPECT_EQ(scan.items[2].note, std::nullopt);
    const auto store = home / "Library/pnpm/store";
    EXPECT_EQ(scan.items[3], (KlarboxItem{
                                 .id = "package-caches:Library/pnpm/store",
                                 .title = "pnpm store",
                                 .detail = "~/Library/pnpm/store",
                                 .target = KlarboxTarget::contents(store),
                                 .allowedRoot = store,
                                 .size = DiskUsage::allocatedSize(store),
                                 .tier = SafetyTier::safe,
                                 .note = "Projects relink their packages on the next install.",
                                 .isSelectedByDefault = true,
                             }));
    context.minimumSize = scan.items[1].size;
    EXPECT_EQ(PackageCachesScanner().scan(context, {}).items.size(), 2U);
    context.minimumSize += 1;
    EXPECT_EQ(PackageCachesScanner().scan(context, {}).items.size(), 1U);
    EXPECT_THAT(PackageCachesScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(PackageCachesScanner, warnsWhileGradleRuns) {
    const TemporaryTree home{{".gradle/caches/a", bytes(9000)}, {".gradle/daemon/a", bytes(5000)}};
    struct Row {
        std::vector<std::string> commandLines;
        bool isBusy;
    };
    const Row rows[] = {
        {{}, false},
        {{"/usr/bin/gradledaemon"}, false},
        {{"/bin/ls", "/usr/bin/java -cp x org.gradle.launcher.daemon.GradleDaemon 8.5"}, true},
    };
    for (const auto &row : rows) {
        auto context = scanContext(home.root());
        context.environment.runningCommandLines = row.commandLines;
        const auto scan = PackageCachesScanner().scan(context, {});
        ASSERT_EQ(scan.items.size(), 2U);
        for (const auto &item : scan.items) {
            EXPECT_EQ(item.note, row.isBusy ? std::optional(busyNote) : std::nullopt);
            EXPECT_EQ(item.isSelectedByDefault, !row.isBusy);
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
    const auto npx = home / ".npm/_npx";
    const auto at = [&](std::string_view name) { return npx.appending(name); };
    struct Row {
        std::vector<std::string> inUse;
        std::vector<FileURL> offered;
        std::optional<std::string> note;
    };
    const Row rows[] = {
        {{}, {at("aa"), at("bb"), at("bbc")}, std::nullopt},
        {{"bb/"}, {at("aa"), at("bbc")}, "Keeping 1 in use by running tools."},
        {{"bbc/"}, {at("aa"), at("bb")}, "Keeping 1 in use by running tools."},
        {{"bb", "aa/x"}, {at("bb"), at("bbc")}, "Keeping 1 in use by running tools."},
        {{"bb/", "aa/", "bb/y"}, {at("bbc")}, "Keeping 2 in use by running tools."},
        {{"aa/", "bb/", "bbc/"}, {}, std::nullopt},
    };
    for (const auto &row : rows) {
        auto context = scanContext(home.root());
        for (const auto &path : row.inUse) {
            context.environment.runningCommandLines.push_back("node " + npx.path() + "/" + path);
        }
        const auto scan = PackageCachesScanner().scan(context, {});
        if (row.offered.empty()) {
            EXPECT_THAT(scan.items, IsEmpty());
            continue;
        }
        EXPECT_THAT(scan.items, ElementsAre(KlarboxItem{
                                    .id = "package-caches:npx",
                                    .title = "npx cache",
                                    .detail = "~/.npm/_npx",
                                    .target = KlarboxTarget::items(row.offered),
                                    .allowedRoot = npx,
                                    .size = DiskUsage::allocatedSize(row.offered),
                                    .tier = SafetyTier::safe,
                                    .note = row.note,
                                    .isSelectedByDefault = true,
                                }));
    }
}

TEST(PackageCachesScanner, isRelevantWhereAnyOfItsFoldersExists) {
    const TemporaryTree home{{".npm/other", bytes(1)}};
    EXPECT_FALSE(PackageCachesScanner().isRelevant(scanContext(home.root())));
    EXPECT_THAT(PackageCachesScanner().scan(scanContext(home.root()), {}).items, IsEmpty());
    home.add({".cache/huggingface", link("../.npm/other")});
    EXPECT_TRUE(PackageCachesScanner().isRelevant(scanContext(home.root())));
    const TemporaryTree npxOnly{{".npm/_npx", directory()}};
    EXPECT_TRUE(PackageCachesScanner().isRelevant(scanContext(npxOnly.root())));
}

} // namespace
} // namespace klarbox::test
