#include "KlarboxKit/Scanning/CategoryCatalog.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

const std::string folder = KLARBOX_PACKAGING;
const std::string klarbox = KLARBOX_PROGRAM;

struct Said {
    std::string text; ///< on standard output and standard error
    int status;
};

Said shell(const std::string &command) {
    std::FILE *pipe = ::popen((command + " 2>&1 </dev/null").c_str(), "r");
    Said said{};
    std::array<char, 4096> buffer{};
    while (const auto got = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        said.text.append(buffer.data(), got);
    }
    said.status = ::pclose(pipe);
    return said;
}

bool hasTool(const std::string &name) {
    return shell("command -v " + name).status == 0;
}

std::string contents(const std::string &file) {
    std::ifstream in(folder + "/" + file);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Everything that the expression's first group matches.
std::set<std::string> matches(const std::string &text, const char *expression) {
    const std::regex regex(expression);
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

std::set<std::string> options(const std::string &command) {
    return matches(shell(klarbox + " " + command + " --help").text,
                   R"((?:^|\n)  (?:-\w,)?(--[a-z-]+))");
}

std::set<std::string> commands(const std::string &command) {
    const auto help = shell(klarbox + " " + command + " --help").text;
    const auto from = help.find("Subcommands:\n");
    if (from == std::string::npos) {
        return {};
    }
    return matches(help.substr(from, help.find("\n\n", from) - from), R"(\n  ([a-z]+) )");
}

/// What bash offers behind these words.
std::set<std::string> bashCompletions(const std::vector<std::string> &words) {
    const auto said = shell(fmt::format(
        R"(bash -c '. {}/completions/klarbox.bash; COMP_WORDS=(klarbox {}); COMP_CWORD={}; )"
        R"(_klarbox; printf "%s\n" "${{COMPREPLY[@]}}"')",
        folder, fmt::join(words, " "), words.size()));
    EXPECT_EQ(said.status, 0) << said.text;
    return matches(said.text, R"((\S+)\n)");
}

std::string manual() {
    return std::regex_replace(contents("man/klarbox.1"), std::regex(R"(\\-)"), "-");
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
    const std::vector<std::pair<const char *, std::string>> texts{
        {"manual", manual()},
        {"bash", contents("completions/klarbox.bash")},
        {"zsh", contents("completions/_klarbox")},
        {"fish", std::regex_replace(contents("completions/klarbox.fish"), std::regex("-l "), "--")},
    };
    for (const auto &[name, text] : texts) {
        for (const auto &word : everything) {
            EXPECT_TRUE(std::regex_search(text, std::regex("(^|[^a-z-])" + word + "([^a-z-]|$)")))
                << name << " does not know " << word;
        }
    }
    for (const auto &option : matches(manual(), R"((--[a-z-]+))")) {
        EXPECT_TRUE(everything.contains(option)) << option << " is not there";
    }
}

TEST(CompanionFiles, completeInBash) {
    EXPECT_EQ(bashCompletions({"scan", "--"}), options("scan"));
    EXPECT_EQ(bashCompletions({"clean", "--yes", "--"}), options("clean"));
    EXPECT_EQ(bashCompletions({"settings", "--"}), options("settings"));
    EXPECT_EQ(bashCompletions({"--"}), options(""));
    EXPECT_THAT(bashCompletions({"''"}), IsSupersetOf(commands("")));
    EXPECT_THAT(bashCompletions({"settings", "''"}), IsSupersetOf(commands("settings")));
    using Words = std::vector<std::string>;
    const std::vector<std::pair<Words, std::set<std::string>>> cases{
        {{"clean", "--category", "system"},
         {"system-caches", "system-crash-reports", "system-logs"}},
        {{"clean", "--color", "''"}, {"auto", "always", "never"}},
        {{"clean", "--item", "''"}, {}},
        {{"settings", "add", "''"}, {"projectRoots", "excludedPaths"}},
        {{"settings", "set", "includeNodeModules", "''"}, {"true", "false"}},
        {{"clean", "--environment", folder + "/debian/co"},
         {folder + "/debian/conffiles", folder + "/debian/copyright"}},
        {{"settings", "add", "excludedPaths", folder + "/comp"}, {folder + "/completions"}},
    };
    for (const auto &[words, expected] : cases) {
        EXPECT_EQ(bashCompletions(words), expected) << fmt::format("{}", fmt::join(words, " "));
    }
}

TEST(CompanionFiles, areSoundToTheProgramsThatReadThem) {
    const std::vector<std::pair<const char *, std::string>> checks{
        {"bash", "bash -n " + folder + "/completions/klarbox.bash"},
        {"zsh", "zsh -n " + folder + "/completions/_klarbox"},
        {"fish", "fish -n " + folder + "/completions/klarbox.fish"},
        {"groff", "groff -man -Tutf8 -ww -z " + folder + "/man/klarbox.1"},
        {"groff", "groff -man -Tutf8 -ww -z " + folder + "/man/KlarboxHelper.8"},
        {"sh", "for script in postinst prerm postrm; do sh -n " + folder + "/debian/$script; done"},
    };
    std::set<std::string> missing;
    for (const auto &[tool, command] : checks) {
        if (!hasTool(tool)) {
            missing.insert(tool);
            continue;
        }
        const auto said = shell(command);
        EXPECT_EQ(said.status, 0) << command;
        EXPECT_THAT(said.text, IsEmpty()) << command;
    }
    if (!missing.empty()) {
        GTEST_SKIP() << fmt::format("not installed: {}", fmt::join(missing, ", "));
    }
}

TEST(CompanionFiles, exposeLittleOfTheSystemToTheHelper) {
    if (!hasTool("systemd-analyze")) {
        GTEST_SKIP() << "not installed: systemd-analyze";
    }
    const auto unit = folder + "/systemd/app.klarbox.Klarbox.SystemHelper.service";
    const auto said = shell("systemd-analyze security --offline=true --threshold=20 " + unit);
    EXPECT_EQ(said.status, 0) << said.text;
    for (const char *isKept : {"✓ PrivateNetwork=", "✓ PrivateTmp=", "✓ NoNewPrivileges=",
                               "✓ SystemCallFilter=~@privileged", "✓ PrivateDevices="}) {
        EXPECT_THAT(said.text, HasSubstr(isKept));
    }
}

} // namespace
} // namespace klarbox::test
