#include "KlarboxKit/Platform/FileManager.hpp"

#include "Tests/CLI/Klarbox.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <set>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

std::set<std::string> linesOf(const std::string &text) {
    std::set<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    return lines;
}

/// The lines of `before` that `after` lacks, but for folders: removing an entry changes its
/// folder's date and size.
std::vector<std::string> lost(const std::string &before, const std::string &after) {
    const auto kept = linesOf(after);
    std::vector<std::string> gone;
    for (const auto &line : linesOf(before)) {
        if (!kept.contains(line) && !line.ends_with(" directory")) {
            gone.push_back(line);
        }
    }
    return gone;
}

/// Every path below which something may have gone when `items` were cleaned.
std::vector<std::string> targetPaths(const nlohmann::json &document) {
    std::vector<std::string> paths;
    for (const auto &category : document.at("categories")) {
        for (const auto &item : category.at("items")) {
            const auto &target = item.at("target");
            if (target.contains("path")) {
                paths.push_back(target.at("path"));
            }
            if (target.contains("paths")) {
                paths.insert(paths.end(), target.at("paths").begin(), target.at("paths").end());
            }
        }
    }
    return paths;
}

void expectLostOnlyBelow(const std::vector<std::string> &gone,
                         const std::vector<std::string> &targets) {
    for (const auto &line : gone) {
        bool isExpected = false;
        for (const auto &target : targets) {
            isExpected =
                isExpected || line.starts_with(target + "/") || line.starts_with(target + " ");
        }
        EXPECT_TRUE(isExpected) << "not selected, but gone or changed: " << line;
    }
}

TEST(CleanCommand, movesTheDefaultSelectionToTheTrashAndTouchesNothingElse) {
    const TemporaryDemoWorld demo;
    const std::vector<std::string> categories{"--category", "user-caches", "--category", "logs",
                                              "--category", "xcode",       "--category", "trash"};
    auto scanArguments = demo.arguments({"scan", "--json"});
    scanArguments.insert(scanArguments.end(), categories.begin(), categories.end());
    auto cleanArguments = demo.arguments({"clean", "--json", "--yes", "--default-selection"});
    cleanArguments.insert(cleanArguments.end(), categories.begin(), categories.end());

    auto dryRun = cleanArguments;
    dryRun.emplace_back("--dry-run");
    const auto before = manifest(demo.world.root);
    const auto selected = runKlarbox(dryRun).json();
    EXPECT_EQ(manifest(demo.world.root), before);

    const auto run = runKlarbox(cleanArguments);
    ASSERT_EQ(run.exitCode, 0) << run.error << run.output;
    const auto report = run.json();
    EXPECT_THAT(report.at("failures"), IsEmpty());
    EXPECT_EQ(report.at("freedBytes"), 0);
    EXPECT_GT(report.at("trashedBytes"), 0);

    const auto after = manifest(demo.world.root);
    const auto gone = lost(before, after);
    EXPECT_FALSE(gone.empty());
    expectLostOnlyBelow(gone, targetPaths(selected));
    // What is gone from its place lies whole in the Trash: as many entries as before, and nothing
    // that was selected is found again.
    EXPECT_EQ(std::ranges::count(before, '\n'), std::ranges::count(after, '\n'));
    const auto again = itemIDs(runKlarbox(scanArguments).json());
    for (const auto &id : itemIDs(selected)) {
        EXPECT_THAT(again, Not(Contains(id)));
    }
    EXPECT_THAT(again, Contains(StartsWith("trash:")));
}

TEST(CleanCommand, deletesPermanentlyAndRunsExactlyTheSelectedCommands) {
    const TemporaryDemoWorld demo;
    const auto before = manifest(demo.world.root);
    const auto run = runKlarbox(
        demo.arguments({"clean", "--json", "--yes", "--permanent", "--item", "docker:build-cache",
                        "--item", "user-caches:com.example.photos"}));
    ASSERT_EQ(run.exitCode, 0) << run.error << run.output;
    const auto report = run.json();
    ASSERT_EQ(report.at("outcomes").size(), 2U);
    EXPECT_EQ(report.at("outcomes")[0].at("result").at("kind"), "removed");
    EXPECT_EQ(report.at("outcomes")[1].at("result").at("kind"), "ranCommand");
    EXPECT_EQ(report.at("trashedBytes"), 0);
    expectLostOnlyBelow(lost(before, manifest(demo.world.root)),
                        {(demo.world.home().appending("Library/Caches/com.example.photos")).path(),
                         demo.world.toolLog().path()});

    std::vector<std::string> changing;
    for (const auto &line : linesOf(FileManager::contents(demo.world.toolLog()))) {
        if (line.find("prune") != std::string::npos && line.find("-n") == std::string::npos) {
            changing.push_back(line);
        }
    }
    EXPECT_THAT(changing, ElementsAre("docker builder prune -f"));
}

TEST(CleanCommand, refusesWithoutASelectionOrSomebodyToAsk) {
    const TemporaryDemoWorld demo;
    const auto before = manifest(demo.world.root);
    const std::vector<std::vector<std::string>> cases{
        {"clean"},
        {"clean", "--yes"},
        {"clean", "--default-selection"},
        {"clean", "--yes", "--item", "user-caches:gone"},
        {"clean", "--yes", "--item", "user-caches:com.example.photos", "--item", "nonsense"},
        {"clean", "--yes", "--default-selection", "--trash", "--permanent"},
    };
    for (const auto &arguments : cases) {
        auto narrowed = demo.arguments(arguments);
        narrowed.insert(narrowed.end(), {"--category", "user-caches"});
        const auto run = runKlarbox(narrowed);
        EXPECT_EQ(run.exitCode, 2) << fmt::format("{}", fmt::join(arguments, " "));
        EXPECT_THAT(run.error, MatchesRegex("klarbox: [^\n]+\n"));
        EXPECT_EQ(run.output, "");
    }
    EXPECT_EQ(manifest(demo.world.root), before);
}

TEST(CleanCommand, asksOnTheTerminalAndTakesSilenceForNo) {
    const TemporaryDemoWorld demo;
    const auto arguments = [&] {
        auto all = demo.arguments({"clean"});
        all.insert(all.end(), {"--category", "user-caches", "--category", "trash"});
        return all;
    }();
    const auto before = manifest(demo.world.root);
    for (const auto *input : {"\n", "none\n", "1\n\n", "1\nn\n", "nonsense\n1\nno\n", "\x04"}) {
        const auto run = runKlarboxOnTerminal(arguments, input);
        EXPECT_EQ(run.exitCode, 0) << run.output;
        EXPECT_EQ(manifest(demo.world.root), before) << input;
    }
    // Number 6 is the Trash, the largest of its category: permanent, and said to be.
    const auto run = runKlarboxOnTerminal(arguments, "6\ny\n");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("deleted permanently"), HasSubstr("[y/N]"), HasSubstr("Freed")));
    EXPECT_THAT(FileManager::contentsOfDirectory(demo.world.home().appending(".Trash")), IsEmpty());
}

TEST(CleanCommand, dryRunSaysNothingOfCategoriesWithoutASelection) {
    const TemporaryDemoWorld demo;
    const auto run = runKlarbox(
        demo.arguments({"clean", "--dry-run", "--permanent", "--item",
                        "user-caches:com.example.photos", "--item", "docker:build-cache"}));
    EXPECT_EQ(run.exitCode, 0) << run.error;
    EXPECT_THAT(run.output, AllOf(HasSubstr("Photos"), HasSubstr("docker builder prune -f"),
                                  HasSubstr("1 item will be deleted permanently"),
                                  HasSubstr("Nothing was touched"), Not(HasSubstr("Xcode")),
                                  Not(HasSubstr("Nothing to clean")), Not(HasSubstr("Browser"))));
}

TEST(CleanCommand, reportsAFailureWithExitCodeOne) {
    const TemporaryDemoWorld demo;
    TemporaryTree fakes{{"brew",
                         text("#!/bin/sh\ncase \"$*\" in\n'cleanup -n --prune=all') echo "
                              "'would free approximately 5MB' ;;\n*) echo 'Error: locked' "
                              ">&2; exit 3 ;;\nesac\n"),
                         std::nullopt, 0755}};
    fakes.add({"environment.json",
               text(fmt::format(R"({{"tools": {{"brew": "{}"}}}})", (fakes / "brew").path()))});
    const auto run = runKlarbox({"clean", "--json", "--yes", "--home", demo.world.home().path(),
                                 "--environment", (fakes / "environment.json").path(), "--category",
                                 "homebrew", "--item", "homebrew:cleanup"});
    EXPECT_EQ(run.exitCode, 1) << run.error;
    EXPECT_EQ(run.json().at("outcomes")[0].at("result"),
              (nlohmann::json{{"kind", "failed"}, {"message", "Error: locked"}}));
    EXPECT_THAT(run.json().at("failures"), ElementsAre("homebrew:cleanup"));
}

TEST(CleanCommand, controlCFinishesTheItemInHandAndReports) {
    const TemporaryTree tree{
        {"home", directory()},
        {"brew",
         text("#!/bin/sh\ncase \"$*\" in\n'cleanup -n --prune=all') echo 'would free "
              "approximately 5GB' ;;\nautoremove*) ;;\n*) touch \"$0.began\"; sleep 1 ;;\n"
              "esac\n"),
         std::nullopt, 0755},
    };
    tree.add({"environment.json",
              text(fmt::format(R"({{"tools": {{"brew": "{}"}}}})", (tree / "brew").path()))});
    const auto run = runKlarbox({"clean", "--json", "--yes", "--home", (tree / "home").path(),
                                 "--environment", (tree / "environment.json").path(), "--category",
                                 "homebrew", "--default-selection"},
                                [&](int process) {
                                    while (!FileManager::exists(tree / "brew.began")) {
                                        std::this_thread::sleep_for(std::chrono::milliseconds(10));
                                    }
                                    ::kill(process, SIGINT);
                                });
    EXPECT_EQ(run.exitCode, 130);
    EXPECT_EQ(run.json().at("outcomes")[0].at("result").at("kind"), "ranCommand");
}

TEST(CleanCommand, killedAtAnyMomentItLeavesEveryItemInOnePlaceOrGone) {
    constexpr int items = 40;
    constexpr int filesEach = 5;
    int interrupted = 0;
    for (int attempt = 0; attempt < 20; ++attempt) {
        const bool isPermanent = attempt % 2 == 1;
        const TemporaryTree home(TemporaryTree::Medium::memoryIfPossible, {});
        for (int item = 0; item < items; ++item) {
            for (int file = 0; file < filesEach; ++file) {
                home.add({fmt::format("Library/Caches/app{}/sub/{}", item, file), bytes(4096)});
            }
        }
        home.add({"Library/Caches/kept", text("kept")});
        const auto contentsOf = [&](int item) {
            return home / fmt::format("Library/Caches/app{}/sub", item);
        };
        const auto countGone = [&] {
            int gone = 0;
            for (int item = 0; item < items; ++item) {
                gone += FileManager::exists(contentsOf(item)) ? 0 : 1;
            }
            return gone;
        };
        runKlarbox(
            {"clean", "--yes", "--default-selection", "--home", home.root().path(),
             "--minimum-size", "5000", "--category", "user-caches",
             isPermanent ? "--permanent" : "--trash"},
            [&](int process) {
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
                while (countGone() < attempt && std::chrono::steady_clock::now() < deadline) {
                }
                ::kill(process, SIGKILL);
            });
        EXPECT_EQ(FileManager::contents(home / "Library/Caches/kept"), "kept");
        const int gone = countGone();
        for (int item = 0; item < items && !isPermanent; ++item) {
            if (FileManager::exists(contentsOf(item))) {
                EXPECT_EQ(FileManager::contentsOfDirectory(contentsOf(item)).size(), filesEach);
            }
        }
        interrupted += gone > 0 && gone < items ? 1 : 0;
        const auto trash = home / ".Trash";
        const auto moved = FileManager::exists(trash) ? FileManager::contentsOfDirectory(trash)
                                                      : std::vector<std::string>();
        EXPECT_EQ(moved.size(), isPermanent ? 0 : static_cast<std::size_t>(gone));
        for (const auto &name : moved) {
            EXPECT_EQ(FileManager::contentsOfDirectory(trash.appending(name)).size(), filesEach);
        }
    }
    EXPECT_GT(interrupted, 0);
}

} // namespace
} // namespace klarbox::test
