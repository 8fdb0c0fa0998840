#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/ProjectArtifactsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <filesystem>
#include <random>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

ScanContext projectsContext(const FileURL &home) {
    auto context = scanContext(home);
    context.settings.projectRoots = {"~/code"};
    return context;
}

/// Where the items lie, relative to the project roots; native ones are marked.
std::vector<std::string> places(const CategoryScan &scan, const TemporaryTree &home) {
    std::vector<std::string> found;
    const auto prefix = (home / "code").path().size() + 1;
    for (const auto &item : scan.items) {
        const auto colon = item.id.rfind(':');
        found.push_back((item.id.starts_with("artifacts:native:") ? "native:" : "") +
                        item.id.substr(colon + 1 + prefix));
    }
    return found;
}

TEST(ProjectArtifactsScanner, offersBuildOutputOfProjects) {
    const TemporaryTree home{
        {"code/App/build.gradle", text("x")},
        {"code/App/build/a", bytes(90'000)},
        {"code/App/lib/build/keep", bytes(9000)},
        {"code/App/lib/build/sub/pom.xml", text("x")},
        {"code/App/lib/build/sub/target/a", bytes(9000)},
    };
    const auto context = projectsContext(home.root());
    // A folder that only has the name is someone's own, and looked into as such.
    const std::string target = "$/code/App/lib/build/sub/target";
    EXPECT_THAT(
        lines(ProjectArtifactsScanner().scan(context, {}), home),
        ElementsAre("artifacts:$/code/App/build | build | ~/code/App/build | item "
                    "$/code/App/build | $/code/App | safe selected | App | Gradle build output, "
                    "rebuilt on the next build.",
                    "artifacts:" + target + " | target | ~/code/App/lib/build/sub/target | item " +
                        target +
                        " | $/code/App | safe selected | App | Maven build output, "
                        "rebuilt by mvn package."));
    EXPECT_THAT(ProjectArtifactsScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(ProjectArtifactsScanner, looksWhereProjectsKeepBuildOutputAndNowhereElse) {
    const TemporaryTree home{
        // Directly in a root, hidden projects and links are no projects.
        {"code/DerivedData/a", bytes(9000)},
        {"code/.hidden/DerivedData/a", bytes(9000)},
        {"code/linked", link("../elsewhere")},
        {"elsewhere/DerivedData/a", bytes(9000)},
        // Inside a project.
        {"code/P/DerivedData/a", bytes(9000)},
        {"code/P/.git/DerivedData/a", bytes(9000)},
        {"code/P/.config/DerivedData/a", bytes(9000)},
        {"code/P/linked/DerivedData", link("../../../elsewhere/DerivedData")},
        {"code/P/file/DerivedData", bytes(9000)},
        {"code/P/DerivedData/DerivedData/a", bytes(9000)},
        {"code/P/1/2/3/4/5/6/7/DerivedData/a", bytes(9000)},
        {"code/P/1/2/3/4/5/6/7/8/DerivedData/a", bytes(9000)},
        {"code/P/node_modules/DerivedData/a", bytes(9000)},
        {"code/P/bad\xff/DerivedData/a", bytes(9000)},
    };
    auto context = projectsContext(home.root());
    EXPECT_THAT(places(ProjectArtifactsScanner().scan(context, {}), home),
                UnorderedElementsAre("P/DerivedData", "P/1/2/3/4/5/6/7/DerivedData",
                                     "P/bad\xff/DerivedData"));
}

TEST(ProjectArtifactsScanner, takesEachRootOnce) {
    const TemporaryTree home{
        {"code/P/DerivedData/a", bytes(9000)},
        {"Code/Q/DerivedData/a", bytes(9000)},
        {"linked", link("code")},
        {"file", bytes(1)},
    };
    struct Row {
        std::vector<std::string> roots;
        std::vector<std::string> details;
    };
    const Row rows[] = {
        {{"~/code", "~/code/", "~/./code", "~/x/../code"}, {"~/code/P/DerivedData"}},
        {{"~/code", "~/Code"}, {"~/code/P/DerivedData"}},
        {{"~/Code", "~/code"}, {"~/Code/Q/DerivedData"}},
        {{"~/none", "~/file", "~/linked"}, {}},
        {{(home / "code").path()}, {"~/code/P/DerivedData"}},
        {{"~"}, {"~/Code/Q/DerivedData", "~/code/P/DerivedData"}},
    };
    for (const auto &row : rows) {
        auto context = scanContext(home.root());
        context.settings.projectRoots = row.roots;
        const auto scan = ProjectArtifactsScanner().scan(context, {});
        std::vector<std::string> details;
        for (const auto &item : scan.items) {
            details.push_back(*item.detail);
        }
        EXPECT_EQ(details, row.details) << testing::PrintToString(row.roots);
        EXPECT_EQ(ProjectArtifactsScanner().isRelevant(context), !row.details.empty());
    }
}

TEST(ProjectArtifactsScanner, offersInstalledPackagesAndTheirNativeBuilds) {
    const std::string modules = "code/App/node_modules/";
    const TemporaryTree home{
        {"code/App/package.json", text("{}"), scanTime},
        {modules + "z/android/build/a", bytes(9000)},
        {modules + "react-native-foo/android/build/a", bytes(9000)},
        {modules + "react-native-foo/ios/build/a", bytes(9000)},
        {modules + "react-native-foo/android/.cxx/a", bytes(9000)},
        {modules + "react-native-foo/android/.gradle", link("build")},
        {modules + "@scope/pkg/ios/build/a", hardLink(modules + "z/android/build/a")},
        {modules + "@scope/.pkg/android/.gradle/a", bytes(9000)},
        {modules + "@scope/ios/build", bytes(9000)},
        {modules + ".cache/ios/build/a", bytes(9000)},
        {modules + "plain/build/a", bytes(90'000)},
        {"code/App/sub/node_modules/a/android/build/a", bytes(9000)},
    };
    auto context = projectsContext(home.root());
    std::string native = "artifacts:native:$/code/App/node_modules | Native build files in "
                         "node_modules | ~/code/App/node_modules | items";
    for (const char *path :
         {"@scope/.pkg/android/.gradle", "@scope/pkg/ios/build", "react-native-foo/android/build",
          "react-native-foo/android/.cxx", "react-native-foo/ios/build", "z/android/build"}) {
        native += std::string(" $/") + modules + path;
    }
    native += " | $/code/App | safe selected | App | 6 Android/iOS build folders inside packages. "
              "The packages stay installed.";
    EXPECT_THAT(
        lines(ProjectArtifactsScanner().scan(context, {}), home),
        ElementsAre("artifacts:$/code/App/node_modules | node_modules | ~/code/App/node_modules | "
                    "item $/code/App/node_modules | $/code/App | review | App | Reinstall with "
                    "your package manager (npm, yarn, pnpm) to work on it again. Active project "
                    "(changed today).",
                    native));
    context.settings.includeNodeModules = false;
    const auto scan = ProjectArtifactsScanner().scan(context, {});
    EXPECT_THAT(lines(scan, home), ElementsAre(native));
    context.minimumSize = scan.items.at(0).size + 1;
    EXPECT_THAT(ProjectArtifactsScanner().scan(context, {}).items, IsEmpty());
}

/// What was done to a project last decides whether costly folders start out selected.
TEST(ProjectArtifactsScanner, tellsStaleProjectsFromActiveOnes) {
    struct Row {
        std::vector<Entry> entries;
        std::string note;
        bool isSelected;
    };
    const std::string active = "Active project (changed ";
    const Row rows[] = {
        {{{"a.py", bytes(1), daysAgo(3)}}, active + "3 days ago).", false},
        {{{"a.py", bytes(1), daysAgo(1)}}, active + "1 days ago).", false},
        {{{"a.py", bytes(1), daysAgo(-5)}}, active + "today).", false},
        {{{"a.py", bytes(1), daysAgo(30)}}, active + "30 days ago).", false},
        {{{"a.py", bytes(1), daysAgo(31)}}, "No changes in 31 days.", true},
        {{{"a.py", bytes(1), daysAgo(45)}, {"b.py", bytes(1), daysAgo(50)}},
         "No changes in 45 days.",
         true},
        // Fresh build output, the Finder's notes and deep changes are no work on the project.
        {{{"a.py", bytes(1), daysAgo(45)},
          {"node_modules/x", bytes(1), daysAgo(0)},
          {"build/x", bytes(1), daysAgo(0)},
          {".DS_Store", bytes(1), daysAgo(0)},
          {"src/x", bytes(1), daysAgo(0)},
          {"src", directory(), daysAgo(40)}},
         "No changes in 40 days.",
         true},
        {{{"a.py", bytes(1), daysAgo(45)}, {".git/logs/HEAD", bytes(1), daysAgo(2)}},
         active + "2 days ago).",
         false},
        {{{"a.py", bytes(1), daysAgo(45)}, {".git/index", bytes(1), daysAgo(0)}},
         active + "today).",
         false},
        {{{"a.py", bytes(1), daysAgo(45)}, {".git/config", bytes(1), daysAgo(0)}},
         "No changes in 45 days.",
         true},
        {{{"a.py", link("nowhere"), daysAgo(7)}}, active + "7 days ago).", false},
        // Without anything but artifacts the project's own folder tells.
        {{}, "No changes in 99 days.", true},
    };
    for (const auto &row : rows) {
        const TemporaryTree home{{"code/P/.venv/pyvenv.cfg", bytes(9000)}};
        for (auto entry : row.entries) {
            entry.path = "code/P/" + entry.path;
            home.add(entry);
        }
        // Making entries touched the project's folder.
        home.add({"code/P", directory(), daysAgo(99)});
        const auto scan = ProjectArtifactsScanner().scan(projectsContext(home.root()), {});
        ASSERT_EQ(titles(scan), std::vector<std::string>{".venv"});
        EXPECT_EQ(scan.items[0].note,
                  "Python virtual environment. Recreate it and pip install to use it again. " +
                      row.note);
        EXPECT_EQ(scan.items[0].isSelectedByDefault, row.isSelected) << row.note;
        EXPECT_EQ(scan.items[0].tier, SafetyTier::review);
    }
}

/// The rules once more, as a person would check them by hand, over whole listings.
class PlainRules {
public:
    explicit PlainRules(std::string root) : root_(std::move(root)) {}

    std::vector<std::string> artifacts() {
        for (const auto &project : std::filesystem::directory_iterator(root_)) {
            visit(project.path(), 0);
        }
        return std::move(found_);
    }

private:
    void visit(const std::filesystem::path &folder, int depth) {
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            const auto name = entry.path().filename().string();
            if (entry.is_symlink() || !entry.is_directory() || name == ".git") {
                continue;
            }
            const auto has = [&](const char *marker) {
                return std::filesystem::exists(folder / marker);
            };
            const bool isArtifact =
                (name == "node_modules" && has("package.json")) || name == "DerivedData" ||
                (name == "build" && (has("build.gradle") || has("pubspec.yaml"))) ||
                (name == "target" && (has("Cargo.toml") || has("pom.xml"))) ||
                ((name == ".next" || name == "coverage") && has("package.json")) ||
                (name == ".gradle" && has("gradlew"));
            if (isArtifact) {
                found_.push_back(entry.path().string().substr(root_.size() + 1));
            } else if (depth < 7 && name != "node_modules" && !name.starts_with('.')) {
                visit(entry.path(), depth + 1);
            }
        }
    }

    std::string root_;
    std::vector<std::string> found_;
};

TEST(ProjectArtifactsScanner, agreesWithThePlainRulesOnRandomProjects) {
    constexpr std::array folders{"build",   "target",      ".next",        "coverage",
                                 ".gradle", "DerivedData", "node_modules", ".git",
                                 ".x",      "src",         "lib"};
    constexpr std::array markers{"package.json", "build.gradle", "pubspec.yaml",
                                 "Cargo.toml",   "pom.xml",      "gradlew"};
    std::mt19937 random(20261122);
    const auto below = [&](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    for (int round = 0; round < 10; ++round) {
        const TemporaryTree home;
        std::vector<std::string> made{"code/P", "code/Q"};
        for (int i = 0; i < 60; ++i) {
            auto folder = made[below(made.size())];
            if (below(3) == 0) {
                home.add({folder + "/" + markers[below(markers.size())], text("x")});
            } else {
                folder += std::string("/") + folders[below(folders.size())];
                made.push_back(folder);
                home.add({folder + "/data", bytes(5000)});
            }
        }
        home.add({"code/P/x", bytes(1)});
        home.add({"code/Q/x", bytes(1)});
        EXPECT_THAT(places(ProjectArtifactsScanner().scan(projectsContext(home.root()), {}), home),
                    UnorderedElementsAreArray(PlainRules((home / "code").path()).artifacts()))
            << "round " << round;
    }
}

} // namespace
} // namespace klarbox::test
