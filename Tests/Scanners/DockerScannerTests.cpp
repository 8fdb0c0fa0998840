#include "KlarboxKit/Scanners/DockerScanner.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr auto reportCommand = "docker system df --format {{json .}}";
constexpr auto imagesCommand = "docker images -f dangling=true --format {{.Size}}";

const FileURL dockerURL("/usr/local/bin/docker");

constexpr auto reportOutput =
    R"json(WARNING: Error loading config file: open /Users/ann/.docker/config.json: permission denied
{"Active":"2","Reclaimable":"1.2GB (40%)","Size":"3GB","TotalCount":"7","Type":"Images"}
{"Active":"0","Reclaimable":"0B (0%)","Size":"63B","TotalCount":"1","Type":"Containers"}
{"Active":"1","Reclaimable":"9GB (90%)","Size":"10GB","TotalCount":"4","Type":"Local Volumes"}
{"Active":"0","Reclaimable":"2.5GB (100%)","Size":"2.5GB","TotalCount":"88","Type":"Build Cache"}
)json";

ScanContext dockerContext(std::map<std::string, CommandResult> answers) {
    auto context = scanContext(FileURL("/nowhere"));
    context.environment.locateTool = [](std::string_view name) {
        return name == "docker" ? std::optional(dockerURL) : std::nullopt;
    };
    context.environment.runner = std::make_shared<RecordedRunner>(std::move(answers));
    return context;
}

TEST(DockerScanner, offersDanglingImagesAndBuildCache) {
    auto context = dockerContext({
        {reportCommand, {0, reportOutput}},
        {imagesCommand, {0, "WARNING: 2 plugins are broken\n120MB\n\n1.1GB\r\n<none>\n1,5GB\n"}},
    });
    const KlarboxItem images{
        .id = "docker:images",
        .title = "Dangling images",
        .detail = "docker image prune -f",
        .target = KlarboxTarget::command({dockerURL, {"image", "prune", "-f"}}),
        .size = 1'220'000'000,
        .isSizeEstimate = true,
        .tier = SafetyTier::safe,
        .note = "Untagged image layers no container uses. Tagged images are kept.",
        .isSelectedByDefault = true,
    };
    const KlarboxItem buildCache{
        .id = "docker:build-cache",
        .title = "Build cache",
        .detail = "docker builder prune -f",
        .target = KlarboxTarget::command({dockerURL, {"builder", "prune", "-f"}}),
        .size = 2'500'000'000,
        .isSizeEstimate = true,
        .tier = SafetyTier::safe,
        .note = "The next image build will take longer.",
        .isSelectedByDefault = true,
    };
    const auto scan = DockerScanner().scan(context, {});
    EXPECT_THAT(scan.items, ElementsAre(images, buildCache));
    EXPECT_THAT(scan.issues, IsEmpty());
    for (const auto &call :
         std::dynamic_pointer_cast<const RecordedRunner>(context.environment.runner)->calls()) {
        EXPECT_EQ(call.timeout, std::chrono::seconds(30));
    }

    context.minimumSize = images.size;
    EXPECT_THAT(DockerScanner().scan(context, {}).items, ElementsAre(images, buildCache));
    context.minimumSize += 1;
    EXPECT_THAT(DockerScanner().scan(context, {}).items, ElementsAre(buildCache));
}

TEST(DockerScanner, saysSoWhenDockerDoesNotRun) {
    const auto expected =
        ScanIssue::failed("Docker isn't running. Start it to include its images and build cache.");
    for (const auto &answer : {CommandResult{1, "Cannot connect to the Docker daemon"},
                               CommandResult{-1, "not started"}, CommandResult{-2, "Timed out"}}) {
        const auto context = dockerContext({{reportCommand, answer}, {imagesCommand, {0, "1GB"}}});
        const auto scan = DockerScanner().scan(context, {});
        EXPECT_THAT(scan.items, IsEmpty());
        EXPECT_THAT(scan.issues, ElementsAre(expected));
    }
    // A stopped scan says nothing about Docker.
    std::stop_source stop;
    stop.request_stop();
    EXPECT_THAT(DockerScanner().scan(dockerContext({}), stop.get_token()).issues, IsEmpty());
}

TEST(DockerScanner, offersOnlyWhatIsThere) {
    const auto row = [](std::string reclaimable) {
        return R"({"Type":"Build Cache","Reclaimable":")" + reclaimable + "\"}\n";
    };
    const struct {
        std::string report;
        CommandResult images;
        std::vector<std::int64_t> expected;
    } cases[] = {
        {row("0B"), {0, "0B\n"}, {}},
        {row("-1B"), {0, "-5kB\n"}, {}},
        {row("1B"), {0, ""}, {1}},
        {"", {0, ""}, {}},
        {row("1kB"), {1, "7kB\nError: interrupted\n"}, {7000, 1000}}, // its exit code says nothing
        {row("1kB"), {-2, "Timed out"}, {1000}},
        {"", {0, "9000000TB\n9000000TB\n9000000TB\n"}, {INT64_MAX}},
    };
    for (const auto &[report, images, expected] : cases) {
        const auto context = dockerContext({{reportCommand, {0, report}}, {imagesCommand, images}});
        std::vector<std::int64_t> sizes;
        for (const auto &item : DockerScanner().scan(context, {}).items) {
            sizes.push_back(item.size);
        }
        EXPECT_EQ(sizes, expected) << report << images.output;
    }
}

TEST(DockerScanner, readsTheReport) {
    EXPECT_THAT(DockerScanner::parseSystemDF(reportOutput),
                UnorderedElementsAre(Pair("Images", 1'200'000'000), Pair("Containers", 0),
                                     Pair("Local Volumes", 9'000'000'000),
                                     Pair("Build Cache", 2'500'000'000)));
    const struct {
        std::string report;
        std::map<std::string, std::int64_t, std::less<>> expected;
    } cases[] = {
        {R"({"Type":"a","Reclaimable":"1B"}{"Type":"b","Reclaimable":"1B"})", {}},
        {R"({"Type":"a","Reclaimable":"1B"})"
         "\r\n"
         R"json({"Type":"a","Reclaimable":"  2B  (1%)"})json",
         {{"a", 2}}},
        {R"({"Type":"a","Reclaimable":"1.5 GB"})", {{"a", 0}}}, // only the first piece is read
        {R"({"Type":"a","Reclaimable":"N/A"})", {{"a", 0}}},
        {R"({"Type":"a","Reclaimable":""})", {{"a", 0}}},
        {R"({"Type":"a","Reclaimable":5})", {}},
        {R"({"Type":null,"Reclaimable":"1B"})", {}},
        {R"({"type":"a","Reclaimable":"1B"})", {}},
        {R"([{"Type":"a","Reclaimable":"1B"}])", {}},
        {R"("Type")", {}},
        {"17\nnull\n{", {}},
        {std::string(100'000, '['), {}},
    };
    for (const auto &[report, expected] : cases) {
        EXPECT_EQ(DockerScanner::parseSystemDF(report), expected) << report.substr(0, 100);
    }
}

TEST(DockerScanner, findsTheToolWhereItsApplicationsKeepIt) {
    if (FileManager::exists(FileURL("/Applications/Docker.app"))) {
        GTEST_SKIP() << "Docker is installed on this machine";
    }
    const auto program = text("#!/bin/sh\n");
    const TemporaryTree home{
        {"a/.orbstack/bin/docker", program, std::nullopt, 0755},
        {"b/.orbstack/bin/docker", program, std::nullopt, 0755},
        {"b/.docker/bin/docker", program, std::nullopt, 0755},
        {"c/.docker/bin/docker", program, std::nullopt, 0644},
    };
    const struct {
        const char *home;
        std::optional<FileURL> expected;
    } cases[] = {
        {"a", home / "a/.orbstack/bin/docker"},
        {"b", home / "b/.docker/bin/docker"},
        {"c", std::nullopt},
    };
    for (const auto &[folder, expected] : cases) {
        auto context = scanContext(home / folder);
        const auto runner = std::make_shared<RecordedRunner>(
            std::map<std::string, CommandResult>{{reportCommand, {0, ""}}});
        context.environment.runner = runner;
        EXPECT_EQ(DockerScanner().isRelevant(context), expected.has_value()) << folder;
        EXPECT_THAT(DockerScanner().scan(context, {}).issues, IsEmpty()) << folder;
        const auto calls = runner->calls();
        ASSERT_EQ(calls.empty(), !expected) << folder;
        if (expected) {
            EXPECT_EQ(calls[0].action.executable, *expected);
        }
    }
}

} // namespace
} // namespace klarbox::test
