#include "KlarboxCLI/Application.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include "Tests/CLI/Klarbox.hpp"
#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/MemoryEnds.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sys/mount.h>
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
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

/// The lines of a manifest about what does not lie at or below these paths. Folders are left out:
/// their dates change with their entries.
std::string outside(const std::vector<std::string> &paths, const std::string &manifest) {
    std::string kept;
    for (const auto line : Text::lines(manifest)) {
        const bool isBelow = std::ranges::any_of(paths, [&](const std::string &path) {
            return line.starts_with(path + "/") || line.starts_with(path + " ");
        });
        if (!isBelow && !line.ends_with(" directory")) {
            kept.append(line).append("\n");
        }
    }
    return kept;
}

TEST(CleanCommand, movesTheDefaultSelectionToTheTrashAndTouchesNothingElse) {
    const TemporaryDemoWorld demo;
    const std::string categories =
        " --category user-caches --category logs --category xcode --category trash";
    const auto clean = "clean --json --yes --default-selection" + categories;
    const auto before = manifest(demo.world.root);
    const auto selected = document(demo.run(clean + " --dry-run"));
    EXPECT_EQ(manifest(demo.world.root), before);

    const auto run = demo.run(clean);
    ASSERT_EQ(run.exitCode, 0) << run.err << run.out;
    const auto report = document(run);
    EXPECT_THAT(report.at("failures"), IsEmpty());
    EXPECT_EQ(report.at("freedBytes"), 0);
    EXPECT_GT(report.at("trashedBytes"), 0);

    const auto after = manifest(demo.world.root);
    std::vector<std::string> changed{demo.world.home().appending(".Trash").path()};
    const auto values = selected.flatten();
    for (const auto &[key, value] : values.items()) {
        if (key.find("/target/path") != std::string::npos) {
            changed.push_back(value);
        }
    }
    EXPECT_EQ(outside(changed, after), outside(changed, before));
    // What is gone from its place lies whole in the Trash: as many entries as before, and nothing
    // that was selected is found again.
    EXPECT_EQ(std::ranges::count(before, '\n'), std::ranges::count(after, '\n'));
    const auto again = itemIDs(document(demo.run("scan --json" + categories)));
    const auto cleaned = itemIDs(selected);
    for (const auto id : Text::lines(cleaned)) {
        EXPECT_THAT(again, Not(HasSubstr(id)));
    }
    EXPECT_THAT(again, HasSubstr("trash:"));
}

TEST(CleanCommand, deletesPermanentlyAndRunsExactlyTheSelectedCommands) {
    const TemporaryDemoWorld demo;
    const auto before = manifest(demo.world.root);
    const auto run = demo.run("clean --json --yes --permanent --category user-caches --category "
                              "docker --item docker:build-cache --item "
                              "user-caches:com.example.photos");
    ASSERT_EQ(run.exitCode, 0) << run.err << run.out;
    const auto report = document(run);
    ASSERT_EQ(report.at("outcomes").size(), 2U);
    EXPECT_EQ(report.at("outcomes")[0].at("result").at("kind"), "removed");
    EXPECT_EQ(report.at("outcomes")[1].at("result").at("kind"), "ranCommand");
    EXPECT_EQ(report.at("trashedBytes"), 0);
    const auto photos = demo.world.home().appending("Library/Caches/com.example.photos");
    const std::vector<std::string> changed{photos.path(), demo.world.toolLog().path()};
    EXPECT_EQ(outside(changed, manifest(demo.world.root)), outside(changed, before));
    EXPECT_THAT(FileManager::contentsOfDirectory(photos), IsEmpty());
    EXPECT_EQ(FileManager::contents(demo.world.toolLog()),
              "docker system df --format {{json .}}\n"
              "docker images -f dangling=true --format {{.Size}}\n"
              "docker builder prune -f\n");
    // The demo's tools have done it.
    EXPECT_EQ(itemIDs(document(demo.run("scan --json --category docker"))), "docker:images\n");
}

TEST(CleanCommand, emptiesTheTrashBeforeItMovesAnythingThere) {
    const TemporaryDemoWorld demo;
    const auto trash = demo.world.home().appending(".Trash");
    const auto run = demo.run("clean --json --yes --category user-caches --category trash --item "
                              "user-caches:com.example.photos --item trash:" +
                              trash.path());
    ASSERT_EQ(run.exitCode, 0) << run.err << run.out;
    EXPECT_THAT(FileManager::contentsOfDirectory(trash), ElementsAre("previews.db"));
}

TEST(CleanCommand, followsNoLinkOutOfAnotherUsersHomeNorOffADiskOrVolume) {
    const TemporaryTree tree;
    const struct {
        std::string home;
        const char *disk;
        bool leadsOut;
    } cases[] = {
        {"own", "/", true},
        {"foreign", "/", !isRoot()}, // only root can give a home away
        {"disk/home", "disk", false},
    };
    for (const auto &[home, disk, leadsOut] : cases) {
        const auto target = tree / ("elsewhere/" + home);
        tree.add({home + "/Library/Caches", link(target.path())});
        tree.add({"elsewhere/" + home + "/com.example.a/x", bytes(2'000'000)});
        if (home == "foreign" && isRoot()) {
            ASSERT_EQ(::chown((tree / home).path().c_str(), 12345, 12345), 0);
        }
        const auto run = runKlarbox(
            tree.root(), fmt::format("clean --yes --permanent --default-selection --category "
                                     "user-caches --home {} --disk {}",
                                     home, disk));
        EXPECT_EQ(run.exitCode, leadsOut ? 0 : 1) << home;
        EXPECT_THAT(run.out, HasSubstr(leadsOut ? "deleted" : "a link leads out")) << home;
        EXPECT_NE(FileManager::exists(target.appending("com.example.a/x")), leadsOut) << home;
    }
    // A stick with something else in the place of its Trash.
    const auto uid = std::to_string(::getuid());
    tree.add({"disk/Volumes/Stick/.Trashes", link("../../../precious")});
    tree.add({"precious/" + uid + "/x", bytes(2'000'000)});
    const auto run = runKlarbox(
        tree.root(), fmt::format("clean --yes --category trash --home own --disk disk --item "
                                 "trash:{}/.Trashes/{}",
                                 (tree / "disk/Volumes/Stick").path(), uid));
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_TRUE(FileManager::exists(tree / ("precious/" + uid + "/x")));
}

TEST(CleanCommand, leavesOutOfTheDefaultWhatCannotBeCleanedHere) {
    const TemporaryDemoWorld demo;
    const std::string clean = "clean --category user-caches --category system-caches ";
    std::filesystem::permissions(demo.folder.root().path(), std::filesystem::perms(0755));
    inIsolatedProcess([&] {
        becomeOrdinaryUser();
        const auto all =
            document(demo.run("scan --json --category system-caches")).at("categories");
        ASSERT_TRUE(all[0].at("items")[0].at("isSelectedByDefault"));
        const auto id = all[0].at("items")[0].at("id").get<std::string>();
        const auto told = HasSubstr("of the system of another disk. Run klarbox with sudo");
        // Marked, counted and taken is what can go.
        const auto asked = runKlarboxOnTerminal(demo.folder.root(), clean + demo.options,
                                                {"default\n", "n\n"}, 200);
        EXPECT_THAT(asked.out, AllOf(told, HasSubstr("\n3 items, ")));
        const auto dry = demo.run(clean + "--dry-run --json --default-selection");
        EXPECT_THAT(itemIDs(document(dry)), Not(HasSubstr(id)));
        EXPECT_THAT(demo.run(clean + "--dry-run --default-selection").out, told);
        EXPECT_THAT(demo.run("scan --category system-caches").out,
                    AllOf(told, HasSubstr("; nothing selected")));
        // Named, it is tried, and told.
        const auto run = demo.run(clean + "--yes --json --item " + id);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_THAT(run.err, told);
        EXPECT_THAT(document(run).at("failures"), ElementsAre(id));
    });
}

TEST(CleanCommand, saysBeforehandThatADiskIsReadOnly) {
    const TemporaryTree home{{"Library/Caches", directory()}};
    inIsolatedProcess([&] {
        const auto caches = home / "Library/Caches";
        if (!enterMountNamespace() ||
            ::mount("none", caches.path().c_str(), "tmpfs", 0, nullptr) != 0) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        home.add({"Library/Caches/com.example.a/x", bytes(2'000'000)});
        ASSERT_EQ(::mount("none", caches.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr),
                  0);
        const auto clean = [&](const char *selection) {
            return runKlarbox(home.root(),
                              fmt::format("clean --yes --category user-caches {}", selection));
        };
        const auto told = HasSubstr("1 item, 2.0 MB, on a disk that is mounted read-only.");
        const auto all = clean("--default-selection");
        EXPECT_EQ(all.exitCode, 0);
        EXPECT_THAT(all.err, told);
        const auto named = clean("--item user-caches:com.example.a");
        EXPECT_EQ(named.exitCode, 1);
        EXPECT_THAT(named.err, told);
    });
}

TEST(CleanCommand, refusesWithoutASelectionOrSomebodyToAsk) {
    const TemporaryDemoWorld demo;
    const auto before = manifest(demo.world.root);
    for (const std::string options :
         {"", "--yes", "--default-selection", "--yes --item user-caches:gone",
          "--yes --item user-caches:com.example.photos --item nonsense",
          "--yes --default-selection --trash --permanent"}) {
        const auto run = demo.run("clean --category user-caches " + options);
        EXPECT_EQ(run.exitCode, 2) << options;
        EXPECT_THAT(run.err, MatchesRegex("klarbox: [^\n]+\n"));
        EXPECT_EQ(run.out, "");
    }
    EXPECT_EQ(manifest(demo.world.root), before);
}

TEST(CleanCommand, asksOnTheTerminalAndTakesSilenceForNo) {
    const TemporaryDemoWorld demo;
    const auto clean = "clean --category user-caches --category trash" + demo.options;
    const auto before = manifest(demo.world.root);
    const std::vector<std::string> silence[] = {
        {"\n"},
        {"none\n"},
        {"1\n", "\n"},
        {"1\n", "n\n"},
        {"nonsense\n", "1\n", "no\n"},
        {"1\n", "y\x04\x04"},
        {"\x04"},
        {"6\n", "y\n"}, // the Trash, which does not come back
    };
    std::string paste;
    while (paste.size() < 10'000) {
        paste += "1\ny\n";
    }
    for (const auto &answers : silence) {
        // What is typed or pasted during the scan, however much, answers nothing.
        for (const auto &early : {std::string(), paste}) {
            const auto run = runKlarboxOnTerminal(demo.folder.root(), clean, answers, 80, early);
            EXPECT_EQ(run.exitCode, 0) << run.out;
            EXPECT_EQ(manifest(demo.world.root), before) << answers.back();
        }
    }
    // What was selected on the command line is shown before the question.
    EXPECT_THAT(runKlarboxOnTerminal(demo.folder.root(),
                                     clean + "--item user-caches:com.example.photos", {"n\n"})
                    .out,
                AllOf(HasSubstr("~/Library/Caches/com.example.photos"), HasSubstr("[y/N]")));
    EXPECT_EQ(manifest(demo.world.root), before);
    const auto run = runKlarboxOnTerminal(demo.folder.root(), clean, {"6\n", "delete\n"});
    EXPECT_EQ(run.exitCode, 0) << run.out;
    EXPECT_THAT(run.out, AllOf(HasSubstr("deleted permanently"), HasSubstr("Freed")));
    EXPECT_THAT(FileManager::contentsOfDirectory(demo.world.home().appending(".Trash")), IsEmpty());
}

TEST(CleanCommand, dryRunSaysNothingOfCategoriesWithoutASelection) {
    const auto run = TemporaryDemoWorld().run("clean --dry-run --permanent --item "
                                              "user-caches:com.example.photos --item "
                                              "docker:build-cache");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_THAT(run.out, AllOf(HasSubstr("Photos"), HasSubstr("docker builder prune -f"),
                               HasSubstr("1 item will be deleted permanently"),
                               HasSubstr("Nothing was touched"), Not(HasSubstr("Xcode")),
                               Not(HasSubstr("Nothing to clean")), Not(HasSubstr("Browser"))));
}

/// Cleans what brew offers, which is to be one item.
const std::string cleanHomebrew = "clean --json --yes --environment environment.json --category "
                                  "homebrew --item homebrew:cleanup";

TEST(CleanCommand, reportsAFailureWithExitCodeOne) {
    const TemporaryTree home;
    addBrew(home, "'cleanup -n --prune=all') echo 'would free approximately 5MB' ;;\n"
                  "*) echo 'Error: locked' >&2; exit 3 ;;");
    const auto run = runKlarbox(home.root(), cleanHomebrew);
    EXPECT_EQ(run.exitCode, 1) << run.err;
    const auto report = document(run);
    EXPECT_EQ(report.at("outcomes")[0].at("result"),
              (nlohmann::json{{"kind", "failed"}, {"message", "Error: locked"}}));
    EXPECT_THAT(report.at("failures"), ElementsAre("homebrew:cleanup"));
}

TEST(CleanCommand, controlCFinishesTheItemInHandAndReportsAndASecondStopsAtOnce) {
    for (const bool isSecond : {false, true}) {
        const TemporaryTree home;
        addBrew(home, "'cleanup -n --prune=all') echo 'would free approximately 5GB' ;;\n"
                      "autoremove*) ;;\n*) touch began; sleep 1.5; touch ended ;;");
        Running klarbox(klarboxIn(home.root(), cleanHomebrew));
        EXPECT_TRUE(eventually([&] { return FileManager::exists(home / "began"); }));
        klarbox.signal(SIGINT);
        if (isSecond) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300)); // else the two are one
            klarbox.signal(SIGINT);
        }
        const auto run = klarbox.finish();
        EXPECT_EQ(run.exitCode, 130);
        EXPECT_THAT(run.err, MatchesRegex("Finishing[^\n]+\n"));
        if (isSecond) {
            EXPECT_EQ(run.out, "");
        } else {
            EXPECT_EQ(document(run).at("outcomes")[0].at("result").at("kind"), "ranCommand");
        }
        EXPECT_TRUE(eventually([&] { return FileManager::exists(home / "ended"); })); // as it said
    }
}

/// What is to be gone for memory to be out.
std::string lastFile;

TEST(CleanCommand, doesNotEndAsIfNothingWereTouchedWhenMemoryEndsWithTheLastItem) {
    const TemporaryTree home{{"Library/Caches/com.example.a/x", bytes(2'000'000)}};
    lastFile = (home / "Library/Caches/com.example.a/x").path();
    const char *arguments[] = {
        "klarbox",     "clean", "--category", "user-caches", "--default-selection",
        "--permanent", "--yes", "--json"};
    EXPECT_EXIT(
        {
            ::setenv("HOME", home.root().path().c_str(), 1);
            isMemoryOut = [] { return ::access(lastFile.c_str(), F_OK) != 0; };
            ::_exit(runApplication(std::size(arguments), const_cast<char **>(arguments)));
        },
        testing::ExitedWithCode(1), "the report of what was done is lost: out of memory");
}

TEST(CleanCommand, controlCFinishesTheItemAlsoWhenNobodyReadsTheReportAnyMore) {
    const TemporaryTree home;
    addBrew(home, "'cleanup -n --prune=all') echo 'would free approximately 5GB' ;;\n"
                  "autoremove*) ;;\n*) kill -INT $PPID; sleep 0.3 ;;");
    shell("cd " + home.root().path() + "; export HOME=$PWD; { " KLARBOX_PROGRAM " " +
          cleanHomebrew + " 2>&1; echo $? >code; } | true");
    EXPECT_EQ(FileManager::contents(home / "code"), "130\n");
}

TEST(CleanCommand, killedAtAnyMomentItLeavesEveryItemInOnePlaceOrGone) {
    namespace fs = std::filesystem;
    constexpr int items = 40;
    constexpr int filesEach = 5;
    int interrupted = 0;
    for (int attempt = 0; attempt < 20; ++attempt) {
        const bool isPermanent = attempt % 2 == 1;
        const TemporaryTree home(TemporaryTree::Medium::memoryIfPossible,
                                 {{"Library/Caches/kept", text("kept")}});
        for (int file = 0; file < items * filesEach; ++file) {
            home.add({fmt::format("Library/Caches/app{}/sub/{}", file % items, file), bytes(4096)});
        }
        const auto countGone = [&] {
            int gone = 0;
            for (int item = 0; item < items; ++item) {
                const auto place = home / fmt::format("Library/Caches/app{}/sub", item);
                gone += FileManager::exists(place) ? 0 : 1;
            }
            return gone;
        };
        Running klarbox(klarboxIn(home.root(), std::string("clean --yes --default-selection "
                                                           "--minimum-size 5000 --category "
                                                           "user-caches ") +
                                                   (isPermanent ? "--permanent" : "--trash")));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (countGone() < attempt && std::chrono::steady_clock::now() < deadline) {
        }
        klarbox.signal(SIGKILL);
        klarbox.finish();
        const int gone = countGone();
        interrupted += gone > 0 && gone < items ? 1 : 0;

        int whole = 0;
        for (const auto &entry : fs::recursive_directory_iterator(home.root().path())) {
            whole += entry.is_directory() && entry.path().filename().string().starts_with("sub") &&
                             std::distance(fs::directory_iterator(entry), {}) == filesEach
                         ? 1
                         : 0;
        }
        if (isPermanent) {
            EXPECT_FALSE(FileManager::exists(home / ".Trash"));
        } else {
            EXPECT_EQ(whole, items);
        }
        EXPECT_EQ(FileManager::contents(home / "Library/Caches/kept"), "kept");
    }
    EXPECT_GT(interrupted, 0);
}

} // namespace
} // namespace klarbox::test
