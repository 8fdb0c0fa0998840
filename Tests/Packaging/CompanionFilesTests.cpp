#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "Tests/Support/Programs.hpp"

#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <re2/re2.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

const std::string folder = KLARBOX_PACKAGING;
const std::string klarbox = KLARBOX_PROGRAM;
constexpr int notInstalled = 127; ///< what a shell says of a program that is not there

/// Everything that the expression's first group matches.
std::set<std::string> matches(const std::string &text, const RE2 &expression) {
    std::set<std::string> found;
    std::string match;
    for (re2::StringPiece rest(text); RE2::FindAndConsume(&rest, expression, &match);) {
        found.insert(match);
    }
    return found;
}

std::set<std::string> options(const std::string &command) {
    return matches(shell(klarbox + " " + command + " --help").out, R"(\n  (?:-\w,)?(--[a-z-]+))");
}

/// The commands that a command has.
std::set<std::string> commands(const std::string &command) {
    const auto help = shell(klarbox + " " + command + " --help").out;
    const auto from = help.find("Subcommands:\n");
    return from == std::string::npos
               ? std::set<std::string>()
               : matches(help.substr(from, help.find("\n\n", from) - from), R"(\n  ([a-z]+) )");
}

/// What bash offers behind these words.
std::set<std::string> bashCompletions(const std::string &behind) {
    const auto said = shell(fmt::format(
        R"(bash -c '. {}/completions/klarbox.bash; COMP_WORDS=(klarbox {}); COMP_CWORD={}; )"
        R"(_klarbox; printf "%s\n" "${{COMPREPLY[@]}}"')",
        folder, behind, words(behind).size()));
    EXPECT_EQ(said.exitCode, 0) << said.out;
    return matches(said.out, R"((\S+)\n)");
}

/// A companion's text, with options as they are typed: in the manual their hyphens are escaped, and
/// fish has a flag for their long form.
std::string contents(const std::string &file) {
    auto text = FileManager::contents(FileURL(folder + "/" + file));
    RE2::GlobalReplace(&text, R"(\\-)", "-");
    RE2::GlobalReplace(&text, "-l ", "--");
    return text;
}

TEST(CompanionFiles, knowEveryCommandAndOption) {
    ASSERT_THAT(commands(""), testing::Contains("scan"));
    auto everything = options("");
    for (const auto &command : commands("")) {
        everything.merge(options(command));
        everything.insert(command);
        for (const auto &action : commands(command)) {
            everything.insert(action);
        }
    }
    ASSERT_THAT(everything, IsSupersetOf({"--dry-run", "--home", "clean", "check"}));
    for (const auto &category : CategoryCatalog::all()) {
        everything.insert(category.id);
    }
    const auto settings = nlohmann::json::parse(ScanSettings{}.encoded());
    for (const auto &[key, _] : settings.items()) {
        everything.insert(key);
    }
    for (const auto *file : {"man/klarbox.1", "completions/klarbox.bash", "completions/_klarbox",
                             "completions/klarbox.fish"}) {
        const auto text = contents(file);
        for (const auto &word : everything) {
            EXPECT_TRUE(RE2::PartialMatch(text, "(^|[^a-z-])" + word + "([^a-z-]|$)"))
                << file << " does not know " << word;
        }
    }
    for (const auto &option : matches(contents("man/klarbox.1"), R"((--[a-z-]+))")) {
        EXPECT_TRUE(everything.contains(option)) << option << " is not there";
    }
}

TEST(CompanionFiles, areOfOneVersion) {
    std::string version;
    ASSERT_TRUE(
        RE2::PartialMatch(shell(klarbox + " --version").out, R"((\d+\.\d+\.\d+))", &version));
    const std::pair<const char *, const char *> places[] = {
        {"../CHANGELOG.md", R"(\n## \[(\d[^]]*)\])"},
        {"debian/changelog", R"(^klarbox \(([^-]+)-)"},
        {"man/klarbox.1", R"-("Klarbox ([^"]+)")-"},
        {"man/KlarboxHelper.8", R"-("Klarbox ([^"]+)")-"},
    };
    for (const auto &[file, expression] : places) {
        std::string newest;
        RE2::PartialMatch(contents(file), expression, &newest);
        EXPECT_EQ(newest, version) << file;
    }
}

TEST(CompanionFiles, completeInBash) {
    for (const std::string command : {"", "scan ", "clean --yes ", "settings "}) {
        EXPECT_EQ(bashCompletions(command + "--"), options(command)) << command;
    }
    EXPECT_THAT(bashCompletions("\"\""), IsSupersetOf(commands("")));
    EXPECT_THAT(bashCompletions("settings \"\""), IsSupersetOf(commands("settings")));
    using Words = std::set<std::string>;
    const std::pair<std::string, Words> cases[] = {
        {"clean --category system", {"system-caches", "system-crash-reports", "system-logs"}},
        {"clean --color \"\"", {"auto", "always", "never"}},
        {"clean --item \"\"", {}},
        {"settings add \"\"", {"projectRoots", "excludedPaths"}},
        {"settings set includeNodeModules \"\"", {"true", "false"}},
        {"clean --environment " + folder + "/debian/co",
         {folder + "/debian/conffiles", folder + "/debian/copyright"}},
        {"settings add excludedPaths " + folder + "/comp", {folder + "/completions"}},
    };
    for (const auto &[behind, expected] : cases) {
        EXPECT_EQ(bashCompletions(behind), expected) << behind;
    }
}

TEST(CompanionFiles, areSoundToTheProgramsThatReadThem) {
    std::set<std::string> missing;
    for (const std::string command :
         {"bash -n completions/klarbox.bash", "zsh -n completions/_klarbox",
          "fish -n completions/klarbox.fish", "groff -man -Tutf8 -ww -z man/klarbox.1",
          "groff -man -Tutf8 -ww -z man/KlarboxHelper.8", "sh -n debian/preinst",
          "sh -n debian/postinst", "sh -n debian/prerm", "sh -n debian/postrm"}) {
        const auto said = shell("cd " + folder + "; " + command);
        if (said.exitCode == notInstalled) {
            missing.insert(words(command).front());
        } else {
            EXPECT_EQ(said.exitCode, 0) << command;
            EXPECT_THAT(said.out, IsEmpty()) << command;
        }
    }
    if (!missing.empty()) {
        GTEST_SKIP() << fmt::format("not installed: {}", fmt::join(missing, ", "));
    }
}

TEST(CompanionFiles, exposeLittleOfTheSystemToTheHelper) {
    const auto said = shell("systemd-analyze security --offline=true --threshold=20 " + folder +
                            "/systemd/app.klarbox.Klarbox.SystemHelper.service");
    if (said.exitCode == notInstalled) {
        GTEST_SKIP() << "not installed: systemd-analyze";
    }
    EXPECT_EQ(said.exitCode, 0) << said.out;
    for (const auto *isKept : {"✓ PrivateNetwork=", "✓ PrivateTmp=", "✓ NoNewPrivileges=",
                               "✓ SystemCallFilter=~@debug", "✓ PrivateDevices="}) {
        EXPECT_THAT(said.out, HasSubstr(isKept));
    }
}

} // namespace
} // namespace klarbox::test
