#include "KlarboxKit/Scanners/HomebrewScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto oldVersionsOutput =
    R"(Warning: Skipping node: most recent version 22.1.0 not installed
Would remove: /opt/homebrew/Cellar/wget/1.21.4 (91 files, 4.4MB)
==> This operation would free approximately 1.5GB of disk space.
)";

/// A Homebrew of its own in a temporary folder, with what its dry runs answer.
struct Homebrew {
    Homebrew(CommandResult oldVersions, CommandResult dependencies) {
        addFiles(prefix, "Cellar/", "libfoo/1.0/lib/foo libbar/2.1/lib/bar wget/1.24.5/bin/wget");
        context = contextWith("brew", prefix / "bin/brew",
                              {{"brew cleanup -n --prune=all", std::move(oldVersions)},
                               {"brew autoremove -n", std::move(dependencies)}});
    }
    std::string offered() const { return offers(HomebrewScanner(), context, prefix.root()); }

    TemporaryTree prefix;
    ScanContext context;
};

TEST(HomebrewScanner, offersWhatTheDryRunsName) {
    const Homebrew homebrew({0, oldVersionsOutput},
                            {0,
                             "Warning: something\r\n==> Would autoremove 3 unneeded formulae:\r\n"
                             "libfoo\r\nlibbar\r\ngone\r\n"});
    const auto size = DiskUsage::allocatedSize(
        std::vector{homebrew.prefix / "Cellar/libfoo", homebrew.prefix / "Cellar/libbar"});
    EXPECT_EQ(homebrew.offered(), fmt::format(R"(
homebrew:cleanup | Old versions and downloads | @ | command | none | [x] safe
    $/bin/brew ["cleanup", "--prune=all"] frees about 1610612736 bytes
    Keeps the versions you use now.
homebrew:autoremove | Unused dependencies | libfoo, libbar, gone | command | none | [ ] leftover
    $/bin/brew ["autoremove"] frees {} bytes
    Installed as dependencies of tools you've since removed.)",
                                              size));
    EXPECT_THAT(asked(homebrew.context),
                ElementsAre("180 s: brew cleanup -n --prune=all", "120 s: brew autoremove -n"));
}

TEST(HomebrewScanner, leavesOutWhatADryRunDoesNotTell) {
    const struct {
        CommandResult oldVersions;
        CommandResult dependencies;
        std::int64_t minimumSize;
        std::vector<std::string> expected;
    } cases[] = {
        {{1, oldVersionsOutput}, {0, "a\nb\nc\nd\ne\n"}, 0, {"a, b, c, d, e"}},
        {{0, ""}, {0, "a\nb\nc\nd\ne\nf\ng\n"}, 0, {"a, b, c, d, e, ..."}},
        {{0, oldVersionsOutput}, {1, "libfoo\n"}, 0, {"brew cleanup --prune=all"}},
        {{0, ""}, {0, "==>Nothing\nWarning: a\n"}, 0, {}},
        {{0, oldVersionsOutput}, {0, ""}, 1'610'612'736, {"brew cleanup --prune=all"}},
        {{0, oldVersionsOutput}, {0, "libfoo\n"}, 1'610'612'737, {}},
    };
    for (const auto &[oldVersions, dependencies, minimumSize, expected] : cases) {
        Homebrew homebrew(oldVersions, dependencies);
        homebrew.context.minimumSize = minimumSize;
        const auto scan = HomebrewScanner().scan(homebrew.context, {});
        std::vector<std::string> details;
        for (const auto &item : scan.items) {
            details.push_back(item.detail.value_or(""));
        }
        EXPECT_EQ(details, expected);
        EXPECT_THAT(scan.issues, IsEmpty());
    }
}

TEST(HomebrewScanner, isRelevantWhereTheToolIs) {
    Homebrew homebrew({}, {});
    EXPECT_TRUE(HomebrewScanner().isRelevant(homebrew.context));
    homebrew.context.environment.locateTool = [](std::string_view) { return std::nullopt; };
    EXPECT_FALSE(HomebrewScanner().isRelevant(homebrew.context));
    EXPECT_EQ(homebrew.offered(), "");
    EXPECT_THAT(asked(homebrew.context), IsEmpty());
}

TEST(HomebrewScanner, readsTheEstimate) {
    const std::pair<const char *, std::optional<std::int64_t>> cases[] = {
        {"==> This operation would free approximately 1.5GB of disk space.", 1'610'612'736},
        {"==> This operation has freed approximately 512MB of disk space.\r\n", 536'870'912},
        {"\x1b[34m==>\x1b[0m \x1b[1mThis operation would free approximately 3KB\x1b[0m", 3072},
        {"free approximately 12B", 12},
        {"free approximately 1.5 KB", 1536},
        {"free approximately 2KB; freed approximately 1KB", 2048}, // the first
        {"free approximately 1.2.3KB", std::nullopt},
        {"free approximately 1,5GB", std::nullopt},
        {"free approximately 1.5GiB", std::nullopt},
        {"Freed approximately 1KB", std::nullopt},
        {"free approximately 99999999999999TB", std::nullopt},
    };
    for (const auto &[output, expected] : cases) {
        EXPECT_EQ(HomebrewScanner::parseKlarboxEstimate(output), expected) << output;
    }
}

TEST(HomebrewScanner, readsTheKegsThatItCouldNotRemove) {
    const std::vector<FileURL> both{FileURL("/opt/Cellar/a/1"), FileURL("/opt/Cellar/b/2")};
    const std::pair<const char *, std::vector<FileURL>> cases[] = {
        {"Removing: /opt/Cellar/c/1... (3 files)\n"
         "Warning: Could not cleanup old kegs! Fix your permissions on:\n"
         "  /opt/Cellar/a/1\n\n  /opt/Cellar/b/2  \r\nError: x\n  /opt/Cellar/not/this\n",
         both},
        {"Could not cleanup old kegs\n /opt/Cellar/a/1\n /opt/Cellar/b/2", both},
        {"Could not cleanup old kegs\n  relative/path\n  /opt/Cellar/a/1\n", {}},
        {"Could not cleanup old kegs\n/opt/Cellar/a/1\n", {}},
        {"Could not cleanup old kegs\n\t/opt/Cellar/a/1\n", {}},
        {"Could not cleanup old kegs", {}},
        {"  /opt/Cellar/a/1\n", {}},
    };
    for (const auto &[output, expected] : cases) {
        EXPECT_EQ(HomebrewScanner::unremovableKegs(output), expected) << output;
    }
}

} // namespace
} // namespace klarbox::test
