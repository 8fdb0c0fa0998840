#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "Tests/CLI/Klarbox.hpp"
#include "Tests/Support/IsolatedProcess.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// Columns of the longest line, styles not counted.
std::size_t widestLine(std::string text) {
    for (auto at = text.find('\x1b'); at != std::string::npos; at = text.find('\x1b', at)) {
        text.erase(at, text.find_first_of("mK", at) + 1 - at);
    }
    std::size_t widest = 0;
    for (const auto line : Text::lines(text)) {
        widest = std::max(widest, Text::displayWidth(line));
    }
    return widest;
}

TEST(ScanCommand, findsExactlyWhatTheDemoWorldHoldsAndWritesNothing) {
    const TemporaryDemoWorld demo;
    const auto before = manifest(demo.world.root);
    // Not even when something was last looked at, but for links, whom nobody follows unseen.
    constexpr timespec longAgo[] = {{1'000'000, 0}, {0, UTIME_OMIT}};
    const std::filesystem::recursive_directory_iterator world(demo.world.disk().path());
    std::vector<std::filesystem::path> paths(begin(world), end(world));
    std::erase_if(paths, [](const auto &path) { return std::filesystem::is_symlink(path); });
    for (const auto &path : paths) {
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), longAgo, AT_SYMLINK_NOFOLLOW), 0);
    }
    const auto run = demo.run("scan --json --category broken-preferences --category user-caches "
                              "--category trash --category system-logs --category "
                              "project-artifacts");
    for (const auto &path : paths) {
        struct stat status {};
        ASSERT_EQ(::lstat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_atim.tv_sec, 1'000'000) << path;
    }
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(itemIDs(document(run), demo.world.disk().path()),
              fmt::format("user-caches:com.example.browser\n"
                          "user-caches:com.example.photos\n"
                          "user-caches:com.example.music\n"
                          "user-caches:com.apple.Safari\n"
                          "user-caches:old-download.tmp\n"
                          "trash:/Users/ann/.Trash\n"
                          "trash:/Volumes/Backup/.Trashes/{}\n"
                          "system-logs:/Library/Logs/CreativeInstaller\n"
                          "system-logs:/private/var/log/system.log\n"
                          "system-logs:/private/var/log/system.log.0.gz\n"
                          "artifacts:/Users/ann/Developer/shop/node_modules\n"
                          "artifacts:/Users/ann/Developer/solver/target\n"
                          "artifacts:/Users/ann/Developer/analysis/.venv\n"
                          "artifacts:/Users/ann/Developer/shop/.next\n"
                          "broken-preferences:/Users/ann/Library/Preferences/"
                          "com.example.damaged.plist\n"
                          "broken-preferences:/Users/ann/Library/Preferences/ByHost/"
                          "com.example.empty.plist\n",
                          ::getuid()));
    EXPECT_EQ(manifest(demo.world.root), before);
}

TEST(ScanCommand, refusesBadInputWithOneLineThatSaysWhatAndWhere) {
    const TemporaryTree tree{
        {"file", text("")},
        {"no-key.json", text(R"({"projectRoots": [], "includeNodeModules": true,
                                 "staleProjectDays": 30})")},
        {"no-json.json", text("{\"projectRoots\": [")},
        {"wrong-type.json", text(R"({"hasFullDiskAccess": "yes"})")},
        {"unknown-key.json", text(R"({"colour": "red"})")},
        {"bad-date.json", text(R"({"now": "2026-13-40T00:00:00Z"})")},
        {"closed", directory(), std::nullopt, 0600},
    };
    std::vector<std::pair<const char *, const char *>> cases{
        {"scan --home missing", "--home missing"},
        {"scan --home file", "--home file"},
        {"scan --home ''", "--home empty"},
        {"scan --disk ''", "--disk empty"},
        {"scan --disk missing", "--disk missing"},
        {"scan --settings no-key.json", "no-key.json excludedPaths"},
        {"scan --settings no-json.json", "no-json.json line"},
        {"scan --settings missing.json", "missing.json"},
        {"scan --environment wrong-type.json", "wrong-type.json hasFullDiskAccess"},
        {"scan --environment unknown-key.json", "unknown-key.json colour"},
        {"scan --environment bad-date.json", "bad-date.json now"},
        {"scan --category cats", "cats user-caches broken-launch-agents"},
        {"scan --minimum-size 1XB", "--minimum-size 1XB"},
        {"scan --minimum-size=-5MB", "--minimum-size -5MB"},
        {"scan --minimum-size ''", "--minimum-size"},
        {"scan --color mauve", "--color"},
        {"scan --frobnicate", "frobnicate"},
        {"scan surplus", "surplus"},
        {"frobnicate", "frobnicate"},
    };
    if (!isRoot()) { // who may enter every folder
        cases.emplace_back("scan --home closed", "--home entered");
    }
    for (const auto &[arguments, named] : cases) {
        SCOPED_TRACE(arguments);
        const auto run = runKlarbox(tree.root(), arguments);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, MatchesRegex("klarbox: [^\n]+\n"));
        for (const auto &word : words(named)) {
            EXPECT_THAT(run.err, HasSubstr(word));
        }
    }
}

TEST(ScanCommand, takesTheOnlyHomeOfADiskAndAsksWhichOfSeveral) {
    const std::string cache = "/Library/Caches/com.example.";
    const TemporaryTree tree{
        {cache.substr(1) + "mine/x", bytes(2'000'000)}, // of who scans
        {"one/Users/ann" + cache + "ann/x", bytes(2'000'000)},
        {"one/Users/shared" + cache + "shared/x", bytes(2'000'000)},
        {"one/Users/.localized", bytes(1)},
        {"one/Users/linked", link("/")},
        {"two/Users/ann", directory()},
        {"two/Users/bob", directory()},
        {"none/Users/Shared", directory()},
        {"itself", link("/")},
    };
    const struct {
        const char *disk;
        const char *told; ///< in the document, or in the error
        int exitCode;
    } cases[] = {
        {"one", "user-caches:com.example.ann\n", 0},
        {"itself", "user-caches:com.example.mine\n", 0},
        {"two", "two/Users holds ann, bob; name one with --home", 2},
        {"none", "none/Users holds none", 2},
    };
    for (const auto &[disk, told, exitCode] : cases) {
        const auto run = runKlarbox(
            tree.root(), fmt::format("scan --json --category user-caches --disk {}", disk));
        EXPECT_EQ(run.exitCode, exitCode) << run.err;
        if (exitCode == 0) {
            EXPECT_EQ(itemIDs(document(run)), told);
        } else {
            EXPECT_THAT(run.err, HasSubstr(told));
        }
    }
}

TEST(ScanCommand, saysThatItDoesNotKnowTheApplicationsOfAHomeWithoutItsDisk) {
    if (FileManager::exists(FileURL("/Applications"))) {
        GTEST_SKIP() << "this machine has a folder of applications";
    }
    const TemporaryTree tree{{"home/Library/Containers/com.example.gone/x", bytes(2'000'000)}};
    const auto scan = [&](const char *options) {
        const auto run =
            runKlarbox(tree.root(),
                       fmt::format("scan --home home --category orphaned-containers {}", options));
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return run.out;
    };
    EXPECT_THAT(scan(""), AllOf(HasSubstr("not known"), Not(HasSubstr("com.example.gone"))));
    tree.add({"disk/Applications", directory()});
    EXPECT_THAT(scan("--disk disk"),
                AllOf(Not(HasSubstr("not known")), HasSubstr("com.example.gone")));
}

TEST(ScanCommand, keepsBackWhatTheSettingsExcludeAndSaysHowMuch) {
    const auto excluding = [](const std::vector<std::string> &entries) {
        ScanSettings settings;
        settings.excludedPaths = entries;
        return text(settings.encoded());
    };
    const std::string caches = "Library/Caches/com.example.";
    const TemporaryTree home{
        {caches + "a/deep/kept.db", bytes(2'000'000)},
        {caches + "b/x", bytes(2'000'000)},
        {caches + "small/x", bytes(2000)},
        {"link", link("Library")},
        {"file.json", excluding({"~/**/kept.db"})},
        {"by-link.json", excluding({"~/link/Caches/com.example.b"})},
        {"category.json", excluding({"category:user-caches"})},
        {"all.json", excluding({"/"})},
        {"slip.json", excluding({"category:caches"})},
    };
    const struct {
        const char *settings;
        const char *found;
        const char *told;
    } cases[] = {
        {"file", "user-caches:com.example.b\n",
         "Kept back: 1 finding by the exclusions in your "
         "settings, 1 finding smaller than 1.0 MB"},
        {"by-link", "user-caches:com.example.a\n", "Kept back: 1 finding by"},
        {"category", "", "Kept back: 3 findings by"},
        {"all", "", "Kept back: 2 findings by"},
    };
    for (const auto &[settings, found, told] : cases) {
        const auto options = fmt::format("--category user-caches --settings {}.json", settings);
        EXPECT_EQ(itemIDs(document(runKlarbox(home.root(), "scan --json " + options))), found);
        EXPECT_THAT(runKlarbox(home.root(), "scan " + options).out, HasSubstr(told)) << settings;
        // What is offered is not refused afterwards.
        const auto clean = "clean --yes --dry-run --default-selection " + options;
        EXPECT_EQ(runKlarbox(home.root(), clean).exitCode, 0);
    }
    const auto slip = runKlarbox(home.root(), "scan --settings slip.json");
    EXPECT_EQ(slip.exitCode, 2);
    EXPECT_THAT(slip.err, HasSubstr("'category:caches' names no category"));
}

TEST(ScanCommand, takesNoOtherFolderForACurrentOneThatIsGone) {
    const TemporaryTree tree{{"root/home/Library/Caches", directory()}, {"root/gone", directory()}};
    const auto run = shell("cd " + (tree / "root/gone").path() +
                           "; rmdir ../gone; " KLARBOX_PROGRAM " scan --home . --disk .");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, "klarbox: There is no current folder any more.\n");
}

TEST(ScanCommand, doesNotTakeTheDiskOfAContainerForThisMachines) {
    Running container(
        {.arguments = words("/usr/bin/bwrap --unshare-pid --die-with-parent --ro-bind "
                            "/usr /usr --symlink usr/lib /lib --symlink usr/lib64 "
                            "/lib64 --tmpfs /Library /usr/bin/cat")});
    container.writeLine("runs");
    if (container.readLine() != "runs") {
        GTEST_SKIP() << "bwrap can make no container here";
    }
    const auto pid = std::to_string(container.pid());
    const auto child = shell("cat /proc/" + pid + "/task/" + pid + "/children").out;
    for (const auto *folder : {"", "/Library"}) {
        const auto run = runKlarbox(FileURL("/tmp"), fmt::format("scan --category system-caches "
                                                                 "--disk /proc/{}/root{}",
                                                                 Text::trimmed(child), folder));
        EXPECT_EQ(run.exitCode, 2) << run.out;
        EXPECT_THAT(run.err, HasSubstr("a system of its own"));
    }
}

TEST(ScanCommand, runsNoProgramOfAnotherUserOrDisk) {
    if (!isRoot()) {
        GTEST_SKIP() << "needs root, to give a home to another user";
    }
    const TemporaryTree tree{
        {"mnt", directory()},
        {"mine/.local/bin/brew", link("../../../ann/.local/bin/brew")},
        {"other/.local/bin/brew", link("../../../tools/linked")},
        {"bob/.docker/bin/docker", link("../../../mine/.docker/bin/docker")},
        {"linked", link("ann")},
        {"no-tools.json", text(R"({"tools": {}})")},
        {"live.json", text("{}")},
    };
    const auto program =
        "#!/bin/sh\ncase $0 in *linked) ;; *) touch " + (tree / "ran").path() + "; esac\n";
    const auto addProgram = [&](const std::string &path) {
        tree.add({path, text(program), {}, 0755});
    };
    for (const auto *path : {"mine/.docker/bin/docker", "ann/.docker/bin/docker",
                             "ann/.local/bin/brew", "tools/linked"}) {
        addProgram(path);
    }
    tree.add({"named.json", text(R"({"tools": {"docker": ")" +
                                 (tree / "ann/.docker/bin/docker").path() + R"("}})")});
    for (const auto *home : {"ann", "bob"}) {
        ASSERT_EQ(::chown((tree / home).path().c_str(), 12345, 12345), 0);
    }
    const struct {
        const char *owner; ///< whose home the process has as its own
        const char *home;
        const char *disk;
        const char *environment;
        const char *category;
        bool isRun;
    } cases[] = {
        {"mine", "mine", "/", "no-tools", "docker", true},
        {"mine", "ann", "/", "no-tools", "docker", false},
        {"mine", "ann", "/", "named", "docker", true}, // for it was meant
        // By links, in front of the home, into it, and out of it.
        {"mine", "linked", "/", "no-tools", "docker", false},
        {"mine", "bob", "/", "no-tools", "docker", false},
        {"other", "ann", "/", "live", "homebrew", true}, // by the name that it knows itself by
        {"mine", "ann", "/", "live", "homebrew", false},
        {"ann", "mine", "/", "live", "homebrew", false},
        // Whose files these are, only the machine knows that the disk comes from.
        {"mine", "mnt/ann", "mnt", "no-tools", "docker", false},
    };
    inIsolatedProcess([&] {
        if (!enterMountNamespace() ||
            ::mount("none", (tree / "mnt").path().c_str(), "tmpfs", 0, nullptr) != 0) {
            GTEST_SKIP() << "needs mounts of its own";
        }
        addProgram("mnt/ann/.docker/bin/docker");
        for (const auto &[owner, home, disk, environment, category, isRun] : cases) {
            const auto run =
                shell(fmt::format("cd {}; HOME=$PWD/{} " KLARBOX_PROGRAM
                                  " scan --home {} --disk {} --environment {}.json --category {}",
                                  tree.root().path(), owner, home, disk, environment, category));
            if (category == std::string("docker")) {
                EXPECT_EQ(run.out.find("somebody else's") == std::string::npos, isRun) << run.out;
            }
            EXPECT_EQ(std::filesystem::remove((tree / "ran").path()), isRun)
                << owner << " " << home << " " << environment;
        }
    });
}

TEST(ScanCommand, doesNotEndWellWhenItsOutputIsLost) {
    const TemporaryTree home{{"Library/Caches/com.example.a/x", bytes(2'000'000)}};
    const std::pair<const char *, int> cases[] = {
        {"scan >/dev/full", 2},
        {"scan --json >&-", 2},
        {"scan <&- 2>&-", 0},
        {"frobnicate 2>/dev/full", 2},
        {"frobnicate 2>&-", 2},
        {"--help >/dev/full", 2},
        {"helper >/dev/full", 2},
        // Something was removed, so that it must not look like wrong usage.
        {"clean --category user-caches --default-selection --yes >/dev/full", 1},
    };
    for (const auto &[command, expected] : cases) {
        EXPECT_EQ(runKlarbox(home.root(), command).exitCode, expected) << command;
    }
}

TEST(ScanCommand, showsStrangeNamesWithoutObeyingThem) {
    const TemporaryTree home{
        {"Library/Logs/two\nlines.log", bytes(2'000'000)},
        {"Library/Logs/\x1b[31mred.log", bytes(2'000'000)},
        {"Library/Logs/latin-\xe9.log", bytes(2'000'000)},
    };
    EXPECT_EQ(itemIDs(document(runKlarbox(home.root(), "scan --category logs --json"))),
              "logs:\x1b[31mred.log\nlogs:latin-\uFFFD.log\nlogs:two\nlines.log\n");
    EXPECT_THAT(runKlarbox(home.root(), "scan --category logs").out,
                AllOf(HasSubstr("two\\nlines.log"), HasSubstr("\\x1b[31mred.log"),
                      HasSubstr("latin-\\xe9.log"), Not(HasSubstr("\x1b"))));
}

TEST(ScanCommand, fitsTheTerminalAndDrawsProgressThere) {
    const TemporaryDemoWorld demo;
    // A path in a sentence is never broken, so that it can be copied; these have none.
    const auto scan = "scan --category user-caches --category trash --category xcode --category "
                      "system-logs --category project-artifacts --category docker" +
                      demo.options;
    for (const int columns : {30, 40, 63, 64, 80, 120}) {
        const auto run = runKlarboxOnTerminal(demo.folder.root(), scan, {}, columns);
        EXPECT_EQ(run.exitCode, 0);
        EXPECT_THAT(run.out, AllOf(HasSubstr("Scanning: "), HasSubstr("App Caches"),
                                   HasSubstr("[x]"), HasSubstr("review"), HasSubstr("Photos"),
                                   HasSubstr("~/Lib"), HasSubstr("The app is")));
        // What follows the last erased progress line is the table.
        EXPECT_LE(widestLine(run.out.substr(run.out.rfind("\r\x1b[K") + 4)),
                  static_cast<std::size_t>(columns));
    }
    const auto plain = scan + "--no-progress --color never";
    EXPECT_THAT(runKlarboxOnTerminal(demo.folder.root(), plain, {}).out,
                AllOf(Not(HasSubstr("Scanning")), Not(HasSubstr("\x1b"))));
}

TEST(ScanCommand, helpFitsATerminalAndIsTheSameHoweverItIsAskedFor) {
    const auto say = [](const std::string &command) {
        return runKlarbox(FileURL("/tmp"), command);
    };
    for (const std::string command : {"scan", "clean", "settings", "helper"}) {
        const auto help = say(command + " --help");
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_THAT(help.out, HasSubstr("Usage: klarbox " + command));
        EXPECT_LE(widestLine(help.out), 80U) << help.out;
        EXPECT_EQ(say("help " + command).out, help.out);
    }
    EXPECT_EQ(say("help").out, say("--help").out);
    EXPECT_EQ(say("help frobnicate").exitCode, 2);
}

TEST(ScanCommand, controlCEndsItSoonEvenWhileAToolDoesNotAnswer) {
    const TemporaryTree home{{"Library/Caches/com.example.a/x", bytes(2'000'000)}};
    addBrew(home, "*) touch began; sleep 20 ;;");
    const auto before = manifest(home / "Library");
    // What was found until then must not be cleaned for that.
    for (const std::string command :
         {"scan", "clean --yes --default-selection", "clean --dry-run --default-selection"}) {
        Running klarbox(klarboxIn(home.root(), command + " --environment environment.json "
                                                         "--category homebrew --category "
                                                         "user-caches"));
        EXPECT_TRUE(eventually([&] { return FileManager::exists(home / "began"); }));
        const auto asked = std::chrono::steady_clock::now();
        klarbox.signal(SIGINT);
        const auto run = klarbox.finish();
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
        EXPECT_EQ(run.exitCode, 130);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(manifest(home / "Library"), before);
        std::filesystem::remove((home / "began").path());
    }
}

} // namespace
} // namespace klarbox::test
