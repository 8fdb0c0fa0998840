#include "KlarboxKit/Scanners/DockerScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
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
        std::vector<std::int64_t> sizes;
        for (const auto &item :
             DockerScanner().scan(dockerContext({0, report}, images), {}).items) {
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
    const std::pair<std::string, std::map<std::string, std::int64_t, std::less<>>> cases[] = {
        {R"({"Type":"a","Reclaimable":"1B"}{"Type":"b","Reclaimable":"1B"})", {}},
        {"{\"Type\":\"a\",\"Reclaimable\":\"  2B  (1%)\"}\r\n", {{"a", 2}}},
        {R"({"Type":"a","Reclaimable":"1.5 GB"})", {{"a", 0}}}, // only the first piece is read
        {R"({"Type":"a","Reclaimable":""})", {{"a", 0}}},
        {R"({"Type":"a","Reclaimable":5})", {}},
        {R"({"Type":null,"Reclaimable":"1B"})", {}},
        {R"([{"Type":"a","Reclaimable":"1B"}])", {}},
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
    const TemporaryTree home{
        {"a/.orbstack/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0755},
        {"b/.orbstack/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0755},
        {"b/.docker/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0755},
        {"c/.docker/bin/docker", text("#!/bin/sh\n"), std::nullopt, 0644},
    };
    for (const std::string expected : {"a/.orbstack/bin/docker", "b/.docker/bin/docker", "c"}) {
        auto context = scanContext(home / expected.substr(0, 1));
        const auto runner = std::make_shared<RecordedRunner>();
        context.environment.runner = runner;
        EXPECT_EQ(DockerScanner().isRelevant(context), expected != "c");
        DockerScanner().scan(context, {});
        const auto calls = runner->calls();
        ASSERT_EQ(calls.size(), expected == "c" ? 0U : 1U);
        EXPECT_EQ(calls.empty() ? home / "c" : calls[0].action.executable, home / expected);
    }
}

} // namespace
} // namespace klarbox::test
