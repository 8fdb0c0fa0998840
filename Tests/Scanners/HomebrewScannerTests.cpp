#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/HomebrewScanner.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto oldVersionsDryRun = "brew cleanup -n --prune=all";
constexpr auto dependenciesDryRun = "brew autoremove -n";

constexpr auto oldVersionsOutput =
    R"(Warning: Skipping node: most recent version 22.1.0 not installed
Would remove: /opt/homebrew/Cellar/wget/1.21.4 (91 files, 4.4MB)
Would remove: /Users/ann/Library/Caches/Homebrew/wget--1.24.5.tar.gz (1.5MB)
==> This operation would free approximately 1.5GB of disk space.
)";

/// A Homebrew of its own in a temporary folder, with what its tool answers.
struct Homebrew {
    explicit Homebrew(std::map<std::string, CommandResult> answers)
        : runner(std::make_shared<RecordedRunner>(std::move(answers))) {
        context.environment.locateTool = [this](std::string_view name) {
            return name == "brew" ? std::optional(brew) : std::nullopt;
        };
        context.environment.runner = runner;
    }

    CategoryScan scan() const { return HomebrewScanner().scan(context, {}); }

    TemporaryTree prefix{
        {"Cellar/libfoo/1.0/lib/libfoo.dylib", bytes(100'000)},
        {"Cellar/libbar/2.1/lib/libbar.dylib", bytes(50'000)},
        {"Cellar/wget/1.24.5/bin/wget", bytes(70'000)},
    };
    FileURL brew = prefix / "bin/brew";
    std::shared_ptr<RecordedRunner> runner;
    ScanContext context = scanContext(prefix.root());
};

std::vector<std::string> ids(const CategoryScan &scan) {
    std::vector<std::string> found;
    for (const auto &item : scan.items) {
        found.push_back(item.id);
    }
    return found;
}

TEST(HomebrewScanner, offersWhatTheDryRunsName) {
    const Homebrew homebrew({
        {oldVersionsDryRun, {0, oldVersionsOutput}},
        {dependenciesDryRun,
         {0, "Warning: something\r\n==> Would autoremove 3 unneeded formulae:\r\n"
             "libfoo\r\nlibbar\r\nnot-there\r\n"}},
    });
    const auto scan = homebrew.scan();
    const std::vector<FileURL> kegs{homebrew.prefix / "Cellar/libfoo",
                                    homebrew.prefix / "Cellar/libbar"};
    EXPECT_THAT(
        scan.items,
        ElementsAre(
            KlarboxItem{
                .id = "homebrew:cleanup",
                .title = "Old versions and downloads",
                .detail = "brew cleanup --prune=all",
                .target = KlarboxTarget::command({homebrew.brew, {"cleanup", "--prune=all"}}),
                .size = 1'610'612'736,
                .isSizeEstimate = true,
                .tier = SafetyTier::safe,
                .note = "Keeps the versions you use now.",
                .isSelectedByDefault = true,
            },
            KlarboxItem{
                .id = "homebrew:autoremove",
                .title = "Unused dependencies",
                .detail = "libfoo, libbar, not-there",
                .target = KlarboxTarget::command({homebrew.brew, {"autoremove"}}),
                .size = DiskUsage::allocatedSize(kegs),
                .isSizeEstimate = false,
                .tier = SafetyTier::leftover,
                .note = "Installed as dependencies of tools you've since removed.",
                .isSelectedByDefault = false,
            }));
    EXPECT_THAT(scan.issues, IsEmpty());
    const auto calls = homebrew.runner->calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].timeout, std::chrono::seconds(180));
    EXPECT_EQ(calls[1].timeout, std::chrono::seconds(120));
}

TEST(HomebrewScanner, leavesOutWhatADryRunDoesNotTell) {
    const struct {
        const char *what;
        CommandResult oldVersions;
        CommandResult dependencies;
        std::int64_t minimumSize;
        std::vector<std::string> expected;
    } cases[] = {
        {"first fails", {1, oldVersionsOutput}, {0, "libfoo\n"}, 0, {"homebrew:autoremove"}},
        {"second fails", {0, oldVersionsOutput}, {1, "libfoo\n"}, 0, {"homebrew:cleanup"}},
        {"both time out", {-2, "Timed out"}, {-2, "Timed out"}, 0, {}},
        {"nothing to do", {0, ""}, {0, ""}, 0, {}},
        {"only headings and warnings", {0, "==> Nothing\n"}, {0, "==>x\nWarning: a\n"}, 0, {}},
        {"unknown names count, even when nothing of them is there",
         {0, ""},
         {0, "gone\n"},
         0,
         {"homebrew:autoremove"}},
        {"at the minimum", {0, oldVersionsOutput}, {0, ""}, 1'610'612'736, {"homebrew:cleanup"}},
        {"below the minimum", {0, oldVersionsOutput}, {0, "libfoo\n"}, 1'610'612'737, {}},
    };
    for (const auto &[what, oldVersions, dependencies, minimumSize, expected] : cases) {
        Homebrew homebrew({{oldVersionsDryRun, oldVersions}, {dependenciesDryRun, dependencies}});
        homebrew.context.minimumSize = minimumSize;
        const auto scan = homebrew.scan();
        EXPECT_EQ(ids(scan), expected) << what;
        EXPECT_THAT(scan.issues, IsEmpty()) << what;
    }
}

TEST(HomebrewScanner, abbreviatesALongListOfDependencies) {
    const struct {
        const char *output;
        const char *expected;
    } cases[] = {
        {"a\nb\nc\nd\ne\n", "a, b, c, d, e"},
        {"a\nb\nc\nd\ne\nf\ng\n", "a, b, c, d, e, ..."},
    };
    for (const auto &[output, expected] : cases) {
        const Homebrew homebrew({{dependenciesDryRun, {0, output}}});
        const auto scan = homebrew.scan();
        ASSERT_EQ(scan.items.size(), 1U);
        EXPECT_EQ(scan.items[0].detail, expected);
    }
}

TEST(HomebrewScanner, isRelevantWhereTheToolIs) {
    Homebrew homebrew({});
    EXPECT_TRUE(HomebrewScanner().isRelevant(homebrew.context));
    homebrew.context.environment.locateTool = [](std::string_view) { return std::nullopt; };
    EXPECT_FALSE(HomebrewScanner().isRelevant(homebrew.context));
    EXPECT_THAT(homebrew.scan().items, IsEmpty());
    EXPECT_THAT(homebrew.runner->calls(), IsEmpty());
}

TEST(HomebrewScanner, readsTheEstimate) {
    const struct {
        const char *output;
        std::optional<std::int64_t> expected;
    } cases[] = {
        {"==> This operation would free approximately 1.5GB of disk space.", 1'610'612'736},
        {"==> This operation has freed approximately 512MB of disk space.\r\n", 536'870'912},
        {"\x1b[34m==>\x1b[0m \x1b[1mThis operation would free approximately 3KB\x1b[0m", 3072},
        {"would free approximately 12B", 12},
        {"free approximately 1.5 KB", 1536},
        {"free approximately 2KB; freed approximately 1KB", 2048}, // the first
        {"free approximately 1.2.3KB", std::nullopt},
        {"free approximately 1,5GB", std::nullopt},
        {"free approximately 1.5GiB", std::nullopt},
        {"free approximately much", std::nullopt},
        {"Freed approximately 1KB", std::nullopt},
        {"freeing approximately 1KB", std::nullopt},
        {"free approximately 99999999999999TB", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto &[output, expected] : cases) {
        EXPECT_EQ(HomebrewScanner::parseKlarboxEstimate(output), expected) << output;
    }
}

TEST(HomebrewScanner, readsTheKegsThatItCouldNotRemove) {
    const FileURL foo("/opt/homebrew/Cellar/foo/1.0");
    const FileURL bar("/opt/homebrew/Cellar/bar/2.1");
    const struct {
        std::string output;
        std::vector<FileURL> expected;
    } cases[] = {
        {"Removing: /opt/homebrew/Cellar/foo/1.0... (3 files)\n"
         "Warning: Could not cleanup old kegs! Fix your permissions on:\n"
         "  /opt/homebrew/Cellar/foo/1.0\n\n"
         "  /opt/homebrew/Cellar/bar/2.1  \r\n"
         "Error: x\n"
         "  /opt/homebrew/Cellar/not/this\n",
         {foo, bar}},
        {"Could not cleanup old kegs\n /opt/homebrew/Cellar/foo/1.0", {foo}},
        {"Could not cleanup old kegs\n  relative/path\n  /opt/homebrew/Cellar/foo/1.0\n", {}},
        {"Could not cleanup old kegs\n/opt/homebrew/Cellar/foo/1.0\n", {}},
        {"Could not cleanup old kegs\n\t/opt/homebrew/Cellar/foo/1.0\n", {}},
        {"Could not cleanup old kegs", {}},
        {"  /opt/homebrew/Cellar/foo/1.0\n", {}},
        {"", {}},
    };
    for (const auto &[output, expected] : cases) {
        EXPECT_EQ(HomebrewScanner::unremovableKegs(output), expected) << output;
    }
}

} // namespace
} // namespace klarbox::test
