#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "Tests/CLI/Klarbox.hpp"

#include <filesystem>
#include <thread>
#include <unistd.h>

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
    const auto settings = [&](const std::string &action) {
        return runKlarbox(tree.root(), "settings --settings deep/er/settings.json " + action);
    };
    EXPECT_THAT(settings("").out,
                AllOf(HasSubstr("~/Developer"), HasSubstr("staleProjectDays: 30")));
    EXPECT_FALSE(FileManager::exists(file)); // looking writes nothing
    for (const auto *action :
         {"set staleProjectDays 45", "set includeNodeModules false", "set projectRoots '~/a' /b",
          "add excludedPaths '~/Library/Caches/x y' '~/keep'", "add excludedPaths '~/keep'",
          "add excludedPaths category:docker '~/d*/**/settings.json'",
          "remove projectRoots '~/a'"}) {
        EXPECT_EQ(settings(action).exitCode, 0) << action;
    }
    EXPECT_EQ(settings("get excludedPaths").out,
              "~/Library/Caches/x y\n~/keep\ncategory:docker\n~/d*/**/settings.json\n");
    EXPECT_EQ(settings("path").out, file.path() + "\n");
    EXPECT_EQ(settings("check").out, file.path() +
                                         " is sound.\n"
                                         "excludedPaths: '~/Library/Caches/x y' matches "
                                         "nothing here.\n"
                                         "excludedPaths: '~/keep' matches nothing here.\n");
    EXPECT_EQ(ScanSettings::decode(FileManager::contents(file)),
              (ScanSettings{.projectRoots = {"/b"},
                            .includeNodeModules = false,
                            .staleProjectDays = 45,
                            .excludedPaths = {"~/Library/Caches/x y", "~/keep", "category:docker",
                                              "~/d*/**/settings.json"}}));
    // Written aside and renamed: nothing is left beside it.
    EXPECT_THAT(FileManager::contentsOfDirectory(file.parent()), ElementsAre("settings.json"));
}

/// As those do who keep their settings together elsewhere.
TEST(SettingsCommand, changesTheFileThatALinkLeadsTo) {
    const TemporaryTree tree{
        {"dotfiles/klarbox.json", text(ScanSettings{}.encoded()), {}, 0644},
        {"settings.json", link("dotfiles/klarbox.json")},
        {"theirs.json", link("dotfiles/klarbox.json")},
    };
    EXPECT_EQ(runKlarbox(tree.root(), "settings --settings settings.json add excludedPaths /kept")
                  .exitCode,
              0);
    EXPECT_EQ(FileManager::type(tree / "settings.json"), FileManager::FileType::symbolicLink);
    const auto changed = tree / "dotfiles/klarbox.json";
    EXPECT_THAT(FileManager::contents(changed), HasSubstr("/kept"));
    EXPECT_EQ(std::filesystem::status(changed.path()).permissions(), std::filesystem::perms(0644));
    // Not where somebody else wants root to write.
    if (isRoot()) {
        ASSERT_EQ(::lchown((tree / "theirs.json").path().c_str(), 12345, 12345), 0);
        const auto run =
            runKlarbox(tree.root(), "settings --settings theirs.json add excludedPaths /other");
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_THAT(run.err, HasSubstr("theirs.json"));
        EXPECT_THAT(FileManager::contents(changed), testing::Not(HasSubstr("/other")));
    }
}

TEST(SettingsCommand, losesNothingThatIsAddedAtTheSameTime) {
    const TemporaryTree tree;
    std::string everyOne;
    {
        std::vector<std::jthread> others;
        for (char name = 'a'; name <= 'l'; ++name) {
            everyOne += std::string("/") + name + "\n";
            others.emplace_back([&, name] {
                runKlarbox(tree.root(), std::string("settings add excludedPaths /") + name);
            });
        }
    }
    EXPECT_EQ(shell("HOME=" + tree.root().path() +
                    " " KLARBOX_PROGRAM " settings get excludedPaths | sort")
                  .out,
              everyOne);
}

TEST(SettingsCommand, refusesNonsenseAndLeavesTheFileAsItWas) {
    const TemporaryTree tree{
        {"sound.json", text(ScanSettings{}.encoded())},
        {"damaged.json", text("{\"projectRoots\": [\"~/precious\"")},
        {"dangling.json", link("nowhere/settings.json")},
        {"relative.json", text(ScanSettings{{}, true, 30, {"a/b"}}.encoded())},
    };
    const auto before = manifest(tree.root());
    const struct {
        const char *file;
        const char *action;
        const char *named;
    } cases[] = {
        {"damaged.json", "show", "damaged.json"},
        {"damaged.json", "check", "damaged.json"},
        {"damaged.json", "set staleProjectDays 1", "damaged.json"},
        {"dangling.json", "set staleProjectDays 1", "dangling.json"},
        {"sound.json", "set staleProjectDays soon", "soon"},
        {"sound.json", "set staleProjectDays -5", "-5"},
        {"sound.json", "set staleProjectDays 99999999999999999999", "staleProjectDays"},
        {"sound.json", "set includeNodeModules maybe", "maybe"},
        {"sound.json", "set colour red", "colour"},
        {"sound.json", "get colour", "excludedPaths"},
        {"sound.json", "add staleProjectDays 1", "staleProjectDays"},
        {"sound.json", "add excludedPaths relative/path", "relative/path"},
        {"sound.json", "add excludedPaths \"$(printf '/a\\377')\"", "UTF-8"},
        {"relative.json", "check", "relative.json: excludedPaths: 'a/b'"},
        {"sound.json", "add excludedPaths /", "'/' would exclude the whole disk"},
        {"sound.json", "add excludedPaths '//./**'", "the whole disk"},
        {"sound.json", "add excludedPaths category:cats", "docker, homebrew"},
        {"sound.json", "add projectRoots category:docker", "category:docker"},
        {"sound.json", "remove projectRoots /b", "/b"},
        {"sound.json", "frobnicate", "frobnicate"},
    };
    for (const auto &[file, action, named] : cases) {
        const auto run =
            runKlarbox(tree.root(), std::string("settings --settings ") + file + " " + action);
        EXPECT_EQ(run.exitCode, 2) << action;
        EXPECT_THAT(run.err, AllOf(MatchesRegex("klarbox: [^\n]+\n"), HasSubstr(named)));
    }
    EXPECT_EQ(manifest(tree.root()), before);
}

} // namespace
} // namespace klarbox::test
