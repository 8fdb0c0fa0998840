#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "Tests/CLI/Klarbox.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST(SettingsCommand, keepsWhatIsSetAndShowsIt) {
    const TemporaryTree tree;
    const auto file = tree / "deep/er/settings.json";
    const auto settings = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "settings");
        arguments.insert(arguments.end(), {"--settings", file.path()});
        return runKlarbox(arguments);
    };
    EXPECT_THAT(settings({}).output,
                AllOf(HasSubstr("~/Developer"), HasSubstr("staleProjectDays: 30")));
    EXPECT_FALSE(FileManager::exists(file)); // looking writes nothing

    EXPECT_EQ(settings({"set", "staleProjectDays", "45"}).exitCode, 0);
    EXPECT_EQ(settings({"set", "includeNodeModules", "false"}).exitCode, 0);
    EXPECT_EQ(settings({"set", "projectRoots", "~/a", "/b"}).exitCode, 0);
    EXPECT_EQ(settings({"add", "excludedPaths", "~/Library/Caches/x y", "~/keep"}).exitCode, 0);
    EXPECT_EQ(settings({"add", "excludedPaths", "~/keep"}).exitCode, 0);
    EXPECT_EQ(settings({"remove", "projectRoots", "~/a"}).exitCode, 0);
    EXPECT_EQ(settings({"get", "excludedPaths"}).output, "~/Library/Caches/x y\n~/keep\n");
    EXPECT_THAT(settings({"path"}).output, file.path() + "\n");
    EXPECT_THAT(settings({"check"}).output, HasSubstr("sound"));

    const auto saved = ScanSettings::decode(FileManager::contents(file));
    EXPECT_EQ(saved, (ScanSettings{.projectRoots = {"/b"},
                                   .includeNodeModules = false,
                                   .staleProjectDays = 45,
                                   .excludedPaths = {"~/Library/Caches/x y", "~/keep"}}));
    // Written aside and renamed: nothing is left beside it.
    EXPECT_THAT(FileManager::contentsOfDirectory(file.parent()), ElementsAre("settings.json"));
}

TEST(SettingsCommand, refusesNonsenseAndLeavesTheFileAsItWas) {
    const TemporaryTree tree{
        {"sound.json", text(ScanSettings{.projectRoots = {"~/a"},
                                         .includeNodeModules = true,
                                         .staleProjectDays = 30,
                                         .excludedPaths = {}}
                                .encoded())},
        {"damaged.json", text("{\"projectRoots\": [\"~/precious\"")},
        {"dangling.json", link("nowhere/settings.json")},
    };
    const auto before = manifest(tree.root());
    struct Case {
        const char *file;
        std::vector<std::string> arguments;
        const char *named;
    };
    const std::vector<Case> cases{
        {"damaged.json", {"show"}, "damaged.json"},
        {"damaged.json", {"check"}, "damaged.json"},
        {"damaged.json", {"set", "staleProjectDays", "1"}, "damaged.json"},
        {"dangling.json", {"set", "staleProjectDays", "1"}, "dangling.json"},
        {"sound.json", {"set", "staleProjectDays", "soon"}, "soon"},
        {"sound.json", {"set", "staleProjectDays", "-5"}, "-5"},
        {"sound.json", {"set", "staleProjectDays", "99999999999999999999"}, "staleProjectDays"},
        {"sound.json", {"set", "includeNodeModules", "maybe"}, "maybe"},
        {"sound.json", {"set", "colour", "red"}, "colour"},
        {"sound.json", {"get", "colour"}, "excludedPaths"},
        {"sound.json", {"add", "staleProjectDays", "1"}, "staleProjectDays"},
        {"sound.json", {"add", "excludedPaths", "relative/path"}, "relative/path"},
        {"sound.json", {"remove", "projectRoots", "~/b"}, "~/b"},
        {"sound.json", {"frobnicate"}, "frobnicate"},
    };
    for (const auto &[file, arguments, named] : cases) {
        std::vector<std::string> all{"settings", "--settings", (tree / file).path()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const auto run = runKlarbox(all);
        EXPECT_EQ(run.exitCode, 2) << arguments.back();
        EXPECT_THAT(run.error, AllOf(MatchesRegex("klarbox: [^\n]+\n"), HasSubstr(named)));
    }
    EXPECT_EQ(manifest(tree.root()), before);
}

} // namespace
} // namespace klarbox::test
