#include "KlarboxKit/Scanners/DockerScanner.hpp"
#include "KlarboxKit/Scanners/HomebrewScanner.hpp"
#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <filesystem>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr auto reportCommand = "docker system df --format {{json .}}";
constexpr auto imagesCommand = "docker images -f dangling=true --format {{.Size}}";

constexpr auto reportOutput = R"json(WARNING: Error loading config file: permission denied
{"Active":"2","Reclaimable":"1.2GB (40%)","Size":"3GB","TotalCount":"7","Type":"Images"}
{"Active":"0","Reclaimable":"0B (0%)","Size":"63B","TotalCount":"1","Type":"Containers"}
{"Active":"1","Reclaimable":"9GB (90%)","Size":"10GB","TotalCount":"4","Type":"Local Volumes"}
{"Active":"0","Reclaimable":"2.5GB (100%)","Size":"2.5GB","TotalCount":"88","Type":"Build Cache"}
)json";

ScanContext dockerContext(CommandResult report, CommandResult images) {
    return contextWith("docker", FileURL("/usr/local/bin/docker"),
                       {{reportCommand, std::move(report)}, {imagesCommand, std::move(images)}});
}

TEST(DockerScanner, offersDanglingImagesAndBuildCache) {
    auto context = dockerContext(
        {0, reportOutput}, {0, "WARNING: 2 plugins are broken\n120MB\n\n1.1GB\r\n<none>\n1,5GB\n"});
    const std::string images = R"(
docker:images | Dangling images | @ | command | none | [x] safe
    /usr/local/bin/docker ["image", "prune", "-f"] frees about 1220000000 bytes
    Untagged image layers no container uses.
    Tagged images are kept.)";
    const std::string buildCache = R"(
docker:build-cache | Build cache | @ | command | none | [x] safe
    /usr/local/bin/docker ["builder", "prune", "-f"] frees about 2500000000 bytes
    The next image build will take longer.)";
    EXPECT_EQ(offers(DockerScanner(), context, context.home), images + buildCache);
    EXPECT_THAT(asked(context), ElementsAre(fmt::format("30 s: {}", reportCommand),
                                            fmt::format("30 s: {}", imagesCommand)));
    context.minimumSize = 1'220'000'000;
    EXPECT_EQ(offers(DockerScanner(), context, context.home), images + buildCache);
    context.minimumSize += 1;
    EXPECT_EQ(offers(DockerScanner(), context, context.home), buildCache);
}

TEST(DockerScanner, saysSoWhenDockerDoesNotRun) {
    const auto expected =
        ScanIssue::failed("Docker isn't running. Start it to include its images and build cache.");
    for (const auto &answer : {CommandResult{1, reportOutput}, CommandResult{-2, "Timed out"}}) {
        const auto scan = DockerScanner().scan(dockerContext(answer, {0, "1GB"}), {});
        EXPECT_THAT(scan.items, IsEmpty());
        EXPECT_THAT(scan.issues, ElementsAre(expected));
    }
    const auto refused = dockerContext({CommandResult::notStarted, "Not yours."}, {0, "1GB"});
    EXPECT_THAT(DockerScanner().scan(refused, {}).issues,
                ElementsAre(ScanIssue::failed("Docker could not be asked: Not yours.")));
    // A stopped scan says nothing about Docker.
    const auto context = dockerContext({-2, "Timed out"}, {0, ""});
    EXPECT_EQ(offers(DockerScanner(), context, context.home, stopped()), "");
}

TEST(DockerScanner, offersOnlyWhatIsThere) {
    const struct {
        std::string buildCache;
        CommandResult images;
        std::vector<std::int64_t> expected;
    } cases[] = {
        {"0B", {0, "0B\n"}, {}},
        {"-1B", {0, "-5kB\n"}, {}},
        {"1B", {0, ""}, {1}},
        {"1kB", {1, "7kB\nError: interrupted\n"}, {7000, 1000}}, // its exit code says nothing
        {"1kB", {-2, "Timed out"}, {1000}},
        {"0B", {0, "9000000TB\n9000000TB\n9000000TB\n"}, {INT64_MAX}},
    };
    for (const auto &[buildCache, images, expected] : cases) {
        const auto report = R"({"Type":"Build Cache","Reclaimable":")" + buildCache + "\"}\n";
        const auto scan = DockerScanner().scan(dockerContext({0, report}, images), {});
        EXPECT_EQ(each(scan, &KlarboxItem::size), expected) << report << images.output;
    }
}

TEST(DockerScanner, readsTheReport) {
    EXPECT_THAT(DockerScanner::parseSystemDF(reportOutput),
                UnorderedElementsAre(Pair("Images", 1'200'000'000), Pair("Containers", 0),
                                     Pair("Local Volumes", 9'000'000'000),
                                     Pair("Build Cache", 2'500'000'000)));
    const std::pair<std::string, std::map<std::string, std::int64_t, std::less<>>> cases[] = {
        {R"({"Type":"a","Reclaimable":"1B"}{"Type":"b","Reclaimable":"1B"})", {}},
        {"{\"Type\":\"a\",\"Reclaimable\":\"  2B  (1%)\"}\r\n", {{"a", 2}}},
        {R"({"Type":"a","Reclaimable":"1.5 GB"})", {{"a", 0}}}, // only the first piece is read
        {R"({"Type":"a","Reclaimable":""})", {{"a", 0}}},
        {R"({"Type":"a","Reclaimable":5})", {}},
        {R"({"Type":null,"Reclaimable":"1B"})", {}},
        {R"([{"Type":"a","Reclaimable":"1B"}])", {}},
        {std::string(100'000, '['), {}},
        {R"({"Type":"a","Reclaimable":"1B"})" + std::string(100'000, ' '), {{"a", 1}}},
    };
    for (const auto &[report, expected] : cases) {
        EXPECT_EQ(DockerScanner::parseSystemDF(report), expected) << report.substr(0, 100);
    }
}

TEST(DockerScanner, findsTheToolWhereItsApplicationsKeepIt) {
    if (FileManager::exists(FileURL("/Applications/Docker.app"))) {
        GTEST_SKIP() << "Docker is installed on this machine";
    }
    const TemporaryTree home{
        {"a/.orbstack/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0755},
        {"b/.orbstack/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0755},
        {"b/.docker/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0755},
        {"c/.docker/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0644},
    };
    auto context = dockerContext({0, reportOutput}, {0, ""});
    context.environment.locateTool = [](std::string_view) { return std::nullopt; };
    for (const std::string tool : {"a/.orbstack/bin/docker", "b/.docker/bin/docker"}) {
        context.home = home / tool.substr(0, 1);
        EXPECT_TRUE(DockerScanner().isRelevant(context));
        EXPECT_THAT(offers(DockerScanner(), context, home.root()), HasSubstr("$/" + tool + " ["));
    }
    context.home = home / "c";
    EXPECT_FALSE(DockerScanner().isRelevant(context));
    EXPECT_EQ(offers(DockerScanner(), context, home.root()), "");
}

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
        EXPECT_THAT(each(scan, &KlarboxItem::detail), ElementsAreArray(expected));
        EXPECT_THAT(scan.issues, IsEmpty());
    }
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

std::string device(std::string_view name, std::string_view dataPath = "/nowhere/data") {
    return fmt::format(R"({{"name": "{}", "udid": "U", "dataPath": "{}", "dataPathSize": 5}})",
                       name, dataPath);
}

ScanContext simulators(CommandResult listing) {
    return contextWith("xcrun", FileURL("/usr/bin/xcrun"),
                       {{"xcrun simctl list devices unavailable -j", std::move(listing)}});
}

TEST(SimulatorsScanner, offersTheDevicesTogetherWithTheirFolders) {
    const TemporaryTree home{
        {"A/data/Library/db", bytes(100'000)},
        {"A/device.plist", bytes(5000)},
        {"B/data/file", bytes(30'000)},
        {"C/data/available", bytes(70'000)},
    };
    // A relative path leads wherever this process happens to be, so nothing is measured for it.
    const auto relative = std::filesystem::relative((home / "C/data").path()).string();
    auto context = simulators(
        {0,
         fmt::format(R"({{"devices": {{"b": [{}], "empty": [], "a": [{}, {}]}}, "pairs": {{}}}})",
                     device("iPhone 8", (home / "A/data").path()),
                     device("iPad", (home / "B/data/").path()),
                     device("iP", relative) + "," + device("X") + "," + device("Y"))});
    const auto size = DiskUsage::allocatedSize(std::vector{home / "A", home / "B"});
    EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), fmt::format(R"(
simulators:unavailable | 5 unavailable simulators | iPad, iP, X, Y, ... | command | none | [x] safe
    /usr/bin/xcrun ["simctl", "delete", "unavailable"] frees {} bytes)",
                                                                              size));
    EXPECT_THAT(asked(context), ElementsAre("60 s: xcrun simctl list devices unavailable -j"));

    context.minimumSize = size;
    EXPECT_EQ(SimulatorsScanner().scan(context, {}).items.size(), 1U);
    context.minimumSize += 1;
    EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), "");
}

TEST(SimulatorsScanner, offersNothingUnlessTheListingIsWhole) {
    const auto good = R"({"devices": {"r": [)" + device("A") + "]}}";
    const CommandResult cases[] = {
        {1, good},
        {-2, good},
        {0, ""},
        {0, "xcrun: warning\n" + good},
        {0, good.substr(0, good.size() - 1)},
        {0, R"({"devices": {}})"},
        {0, R"({"devices": [)" + device("A") + "]}"},
        {0, R"({"devices": {"r": {}}})"},
        {0, R"({"devices": {"r": ["A"]}})"},
        {0, R"({"devices": {"r": [{"name": "A", "udid": "U"}]}})"},
        {0, R"({"devices": {"r": [{"name": 1, "udid": "U", "dataPath": "/x/y"}]}})"},
        {0, R"([])"},
        {0, std::string(100'000, '[')},
    };
    for (const auto &listing : cases) {
        const auto context = simulators(listing);
        EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), "")
            << listing.output.substr(0, 100);
    }
    // What the cases above vary, however long. Nothing to measure is worth offering when every size
    // is wanted.
    const auto context = simulators({0, good + std::string(std::size_t{5} << 20, ' ')});
    EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), R"(
simulators:unavailable | 1 unavailable simulator | A | command | none | [x] safe
    /usr/bin/xcrun ["simctl", "delete", "unavailable"] frees 0 bytes)");
}

TEST(ToolScanners, areRelevantWhereTheirToolsAndDevicesAre) {
    const TemporaryTree tree{{"with/Library/Developer/CoreSimulator/Devices", directory()},
                             {"Xcode.app", directory()}};
    const SimulatorsScanner installed({tree / "missing", tree / "Xcode.app"});
    EXPECT_TRUE(installed.isRelevant(scanContext(tree / "with")));
    EXPECT_FALSE(installed.isRelevant(scanContext(tree / "without")));
    EXPECT_FALSE(SimulatorsScanner({tree / "missing"}).isRelevant(scanContext(tree / "with")));
    EXPECT_TRUE(HomebrewScanner().isRelevant(Homebrew({}, {}).context));
    EXPECT_FALSE(HomebrewScanner().isRelevant(scanContext(tree / "with")));
    EXPECT_EQ(offers(HomebrewScanner(), scanContext(tree / "with"), tree.root()), "");
}

} // namespace
} // namespace klarbox::test
