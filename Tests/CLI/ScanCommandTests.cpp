#include "KlarboxKit/Platform/ChildProcess.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include "Tests/CLI/Klarbox.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// Columns of the longest line, styles and the bytes within a character not counted.
std::size_t widestLine(const std::string &text) {
    std::size_t widest = 0;
    std::size_t columns = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b') {
            i = text.find('m', i);
        } else if (text[i] == '\n') {
            columns = 0;
        } else if (text[i] != '\r' && (text[i] & 0xC0) != 0x80) {
            widest = std::max(widest, ++columns);
        }
    }
    return widest;
}

TEST(ScanCommand, findsExactlyWhatTheDemoWorldHoldsAndWritesNothing) {
    const TemporaryDemoWorld demo;
    const auto before = manifest(demo.world.root);
    const auto run = runKlarbox(demo.arguments(
        {"scan", "--json", "--category", "user-caches", "--category", "logs", "--category", "trash",
         "--category", "package-caches", "--category", "project-artifacts", "--category",
         "broken-"
         "preferences",
         "--category", "system-logs"}));
    ASSERT_EQ(run.exitCode, 0) << run.error;
    EXPECT_EQ(run.error, "");
    const auto home = demo.world.home().path();
    EXPECT_THAT(itemIDs(run.json(), demo.world.root.path()),
                ElementsAre("user-caches:com.example.browser", "user-caches:com.example.photos",
                            "user-caches:com.example.music", "user-caches:com.apple.Safari",
                            "user-caches:old-download.tmp", "logs:DiagnosticReports",
                            "logs:com.example.sync", "trash:/disk/Users/ann/.Trash",
                            fmt::format("trash:/disk/Volumes/Backup/.Trashes/{}", ::getuid()),
                            "system-logs:/disk/Library/Logs/CreativeInstaller",
                            "system-logs:/disk/private/var/log/system.log",
                            "system-logs:/disk/private/var/log/system.log.0.gz",
                            "package-caches:Library/Caches/ms-playwright",
                            "package-caches:.npm/_cacache", "package-caches:.cargo/registry/cache",
                            "package-caches:.gradle/caches", "package-caches:.m2/repository",
                            "package-caches:Library/Caches/pip", "package-caches:npx",
                            "artifacts:/disk/Users/ann/Developer/shop/node_modules",
                            "artifacts:/disk/Users/ann/Developer/solver/target",
                            "artifacts:/disk/Users/ann/Developer/analysis/.venv",
                            "artifacts:/disk/Users/ann/Developer/shop/.next",
                            "broken-preferences:/disk/Users/ann/Library/Preferences/"
                            "com.example.damaged.plist",
                            "broken-preferences:/disk/Users/ann/Library/Preferences/ByHost/"
                            "com.example.empty.plist"));
    EXPECT_EQ(manifest(demo.world.root), before);
}

TEST(ScanCommand, refusesBadInputWithOneLineThatSaysWhatAndWhere) {
    const TemporaryTree tree{
        {"home", directory()},
        {"file", text("")},
        {"no-key.json", text(R"({"projectRoots": [], "includeNodeModules": true,
                                 "staleProjectDays": 30})")},
        {"no-json.json", text("{\"projectRoots\": [")},
        {"wrong-type.json", text(R"({"hasFullDiskAccess": "yes"})")},
        {"unknown-key.json", text(R"({"colour": "red"})")},
        {"bad-date.json", text(R"({"now": "2026-13-40T00:00:00Z"})")},
    };
    const auto at = [&](const char *name) { return (tree / name).path(); };
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> named;
    };
    const std::vector<Case> cases{
        {{"scan", "--home", at("missing")}, {"--home", "missing"}},
        {{"scan", "--home", at("file")}, {"--home", "file"}},
        {{"scan", "--home", ""}, {"--home", "empty"}},
        {{"scan", "--disk", ""}, {"--disk", "empty"}},
        {{"scan", "--settings", ""}, {"--settings", "empty"}},
        {{"scan", "--environment", ""}, {"--environment", "empty"}},
        {{"scan", "--disk", at("missing")}, {"--disk", "missing"}},
        {{"scan", "--settings", at("no-key.json")}, {"no-key.json", "excludedPaths"}},
        {{"scan", "--settings", at("no-json.json")}, {"no-json.json", "line"}},
        {{"scan", "--settings", at("missing.json")}, {"missing.json"}},
        {{"scan", "--environment", at("wrong-type.json")},
         {"wrong-type.json", "hasFullDiskAccess"}},
        {{"scan", "--environment", at("unknown-key.json")}, {"unknown-key.json", "colour"}},
        {{"scan", "--environment", at("bad-date.json")}, {"bad-date.json", "now"}},
        {{"scan", "--category", "cats"}, {"cats", "user-caches", "broken-launch-agents"}},
        {{"scan", "--minimum-size", "1XB"}, {"--minimum-size", "1XB"}},
        {{"scan", "--minimum-size", "-5"}, {"--minimum-size", "-5"}},
        {{"scan", "--minimum-size", ""}, {"--minimum-size"}},
        {{"scan", "--color", "mauve"}, {"--color"}},
        {{"scan", "--frobnicate"}, {"frobnicate"}},
        {{"scan", "surplus"}, {"surplus"}},
        {{"frobnicate"}, {"frobnicate"}},
    };
    for (const auto &[arguments, named] : cases) {
        const auto run = runKlarbox(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments.back();
        EXPECT_EQ(run.output, "") << arguments.back();
        EXPECT_THAT(run.error, MatchesRegex("klarbox: [^\n]+\n")) << arguments.back();
        for (const auto &name : named) {
            EXPECT_THAT(run.error, HasSubstr(name));
        }
    }
}

TEST(ScanCommand, refusesAHomeThatItMayNotEnter) {
    if (isRoot()) {
        GTEST_SKIP() << "root may enter every folder";
    }
    const TemporaryTree tree{{"home", directory(), std::nullopt, 0600}};
    const auto run = runKlarbox({"scan", "--home", (tree / "home").path()});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(run.error, AllOf(HasSubstr("--home"), HasSubstr("may not be entered")));
}

TEST(ScanCommand, doesNotEndWellWhenItsOutputIsLost) {
    const TemporaryTree tree{{"home/Library/Caches/com.example.a/x", bytes(2'000'000)}};
    const auto home = " --home " + (tree / "home").path();
    const struct {
        std::string command;
        int expected;
    } cases[] = {
        {"scan" + home + " >/dev/full", 2},
        {"scan --json" + home + " >&-", 2},
        {"scan" + home + " <&- 2>&-", 0},
        {"frobnicate 2>/dev/full", 2},
        {"frobnicate 2>&-", 2},
        {"--help >/dev/full", 2},
        {"helper >/dev/full", 2},
        // Something was removed, so that it must not look like wrong usage.
        {"clean --category user-caches --default-selection --yes" + home + " >/dev/full", 1},
    };
    for (const auto &[command, expected] : cases) {
        ChildProcess shell(FileURL("/bin/sh"), {"-c", std::string(KLARBOX_PROGRAM) + " " + command},
                           {{"HOME", tree.root().path()}});
        EXPECT_EQ(shell.wait(std::chrono::seconds(60), {}), expected) << command << shell.output();
    }
}

TEST(ScanCommand, showsStrangeNamesWithoutObeyingThem) {
    const TemporaryTree home{
        {"Library/Logs/two\nlines.log", bytes(2'000'000)},
        {"Library/Logs/\x1b[31mred.log", bytes(2'000'000)},
        {"Library/Logs/latin-\xe9.log", bytes(2'000'000)},
    };
    const std::vector<std::string> arguments{"scan", "--category", "logs", "--home",
                                             home.root().path()};
    auto asJSON = arguments;
    asJSON.emplace_back("--json");
    EXPECT_THAT(
        itemIDs(runKlarbox(asJSON).json()),
        ElementsAre("logs:\x1b[31mred.log", "logs:latin-\uFFFD.log", "logs:two\nlines.log"));

    const auto table = runKlarbox(arguments).output;
    EXPECT_THAT(table, AllOf(HasSubstr("two\\nlines.log"), HasSubstr("\\x1b[31mred.log"),
                             HasSubstr("latin-\uFFFD.log"), Not(HasSubstr("\x1b"))));
}

TEST(ScanCommand, fitsTheTerminalAndDrawsProgressThere) {
    const TemporaryDemoWorld demo;
    constexpr std::array<unsigned short, 5> widths{40, 63, 64, 80, 120};
    for (const auto columns : widths) {
        // A path in a sentence is never broken, so that it can be copied; these have none.
        const auto run = runKlarboxOnTerminal(
            demo.arguments({"scan", "--category", "user-caches", "--category", "trash",
                            "--category", "xcode", "--category", "system-logs", "--category",
                            "project-artifacts", "--category", "docker"}),
            "", columns);
        EXPECT_EQ(run.exitCode, 0);
        EXPECT_THAT(run.output, AllOf(HasSubstr("Scanning: "), HasSubstr("App Caches"),
                                      HasSubstr("[x]"), HasSubstr("review"), HasSubstr("Photos"),
                                      HasSubstr("~/Lib"), HasSubstr("The app is")));
        // What follows the last erased progress line is the table.
        EXPECT_LE(widestLine(run.output.substr(run.output.rfind("\r\x1b[K") + 4)), columns);
    }
    EXPECT_THAT(
        runKlarboxOnTerminal(demo.arguments({"scan", "--no-progress", "--color", "never"}), "")
            .output,
        AllOf(Not(HasSubstr("Scanning")), Not(HasSubstr("\x1b"))));
}

TEST(ScanCommand, helpFitsATerminalAndIsTheSameHoweverItIsAskedFor) {
    for (const auto *command : {"scan", "clean", "settings", "helper"}) {
        const auto help = runKlarbox({command, "--help"});
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_THAT(help.output, HasSubstr(fmt::format("Usage: klarbox {}", command)));
        EXPECT_LE(widestLine(help.output), 80U) << help.output;
        EXPECT_EQ(runKlarbox({"help", command}).output, help.output);
    }
    EXPECT_EQ(runKlarbox({"help"}).output, runKlarbox({"--help"}).output);
    EXPECT_EQ(runKlarbox({"help", "frobnicate"}).exitCode, 2);
}

TEST(ScanCommand, controlCEndsItSoonEvenWhileAToolDoesNotAnswer) {
    const TemporaryTree tree{
        {"home/Library/Caches/com.example.a/x", bytes(2'000'000)},
        {"brew", text("#!/bin/sh\ntouch \"$0.began\"\nsleep 20\n"), std::nullopt, 0755},
    };
    tree.add({"environment.json",
              text(fmt::format(R"({{"tools": {{"brew": "{}"}}}})", (tree / "brew").path()))});
    const auto before = manifest(tree / "home");
    const std::vector<std::vector<std::string>> commands{
        {"scan"},
        // What was found until then must not be cleaned for that.
        {"clean", "--yes", "--default-selection"},
        {"clean", "--dry-run", "--default-selection"},
    };
    for (auto arguments : commands) {
        arguments.insert(arguments.end(), {"--home", (tree / "home").path(), "--environment",
                                           (tree / "environment.json").path(), "--category",
                                           "homebrew", "--category", "user-caches"});
        std::chrono::steady_clock::time_point asked;
        const auto run = runKlarbox(arguments, [&](int process) {
            while (!FileManager::exists(tree / "brew.began")) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            asked = std::chrono::steady_clock::now();
            ::kill(process, SIGINT);
        });
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
        EXPECT_EQ(run.exitCode, 130);
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(manifest(tree / "home"), before);
        std::filesystem::remove((tree / "brew.began").path());
    }
}

} // namespace
} // namespace klarbox::test
