#include "KlarboxKit/Scanners/ProjectArtifactsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::UnorderedElementsAre;

ScanContext projectsContext(const FileURL &home, std::vector<std::string> roots = {"~/code"}) {
    auto context = scanContext(home);
    context.settings.projectRoots = std::move(roots);
    return context;
}

TEST(ProjectArtifactsScanner, offersBuildOutputOfProjects) {
    const TemporaryTree home{{"code/App/build/a", bytes(90'000)}};
    addFiles(home, "code/App/",
             "build.gradle lib/build/keep lib/build/sub/pom.xml lib/build/sub/target/a");
    const auto context = projectsContext(home.root());
    // A folder that only has the name is someone's own, and looked into as such.
    EXPECT_EQ(offers(ProjectArtifactsScanner(), context, home / "code"), R"(
artifacts:@ | * | ~ | item $/App/build | .. | [x] safe
    App: Gradle build output, rebuilt on the next build.
artifacts:@ | * | ~ | item $/App/lib/build/sub/target | $/App | [x] safe
    App: Maven build output, rebuilt by mvn package.)");
}

TEST(ProjectArtifactsScanner, looksWhereProjectsKeepBuildOutputAndNowhereElse) {
    const TemporaryTree home{
        {"code/linked", link("../elsewhere")},
        {"code/P/linked/DerivedData", link("../../../elsewhere/DerivedData")},
        {"code/P/bad\xff/DerivedData/a", bytes(9000)},
    };
    // Directly in a root, hidden projects and links are no projects.
    addFiles(home, "", "elsewhere/DerivedData/a code/DerivedData/a code/.hidden/DerivedData/a");
    addFiles(home, "code/P/",
             "DerivedData/a .git/DerivedData/a .config/DerivedData/a file/DerivedData "
             "DerivedData/DerivedData/a 1/2/3/4/5/6/7/DerivedData/a "
             "1/2/3/4/5/6/7/8/DerivedData/a node_modules/DerivedData/a .git/1/DerivedData/a");
    const auto scan = ProjectArtifactsScanner().scan(projectsContext(home.root()), {});
    EXPECT_THAT(each(scan, &KlarboxItem::detail),
                UnorderedElementsAre("~/code/P/DerivedData", "~/code/P/1/2/3/4/5/6/7/DerivedData",
                                     "~/code/P/bad\xff/DerivedData"));
}

TEST(ProjectArtifactsScanner, takesEachRootOnce) {
    const TemporaryTree home{{"linked", link("code")}};
    addFiles(home, "", "code/P/DerivedData/a Code/Q/DerivedData/a file");
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"~/code ~/code/ ~/./code ~/x/../code", {"~/code/P/DerivedData"}},
        {"~/code ~/Code", {"~/code/P/DerivedData"}},
        {"~/Code ~/code", {"~/Code/Q/DerivedData"}},
        {"~/none ~/file ~/linked", {}},
        {(home / "code").path(), {"~/code/P/DerivedData"}},
        {"~", {"~/Code/Q/DerivedData", "~/code/P/DerivedData"}},
    };
    for (const auto &[roots, found] : rows) {
        const auto context = projectsContext(home.root(), words(roots));
        const auto scan = ProjectArtifactsScanner().scan(context, {});
        EXPECT_THAT(each(scan, &KlarboxItem::detail), testing::ElementsAreArray(found)) << roots;
        EXPECT_EQ(ProjectArtifactsScanner().isRelevant(context), !found.empty());
    }
}

TEST(ProjectArtifactsScanner, offersInstalledPackagesAndTheirNativeBuilds) {
    const std::string modules = "code/App/node_modules/";
    const TemporaryTree home{
        {"code/App/package.json", text("{}"), scanTime},
        {modules + "z/android/build/a", bytes(9000)},
        {modules + "plain/build/a", bytes(90'000)},
        {modules + "native/android/.gradle", link("build")},
        {modules + "@linked", link("../../../elsewhere")},
        {"elsewhere/pkg/ios/build/a", bytes(9000)},
        {modules + "@scope/pkg/ios/build/a", hardLink(modules + "z/android/build/a")},
    };
    addFiles(home, modules,
             "native/android/build/a native/ios/build/a native/android/.cxx/a "
             "@scope/.pkg/android/.gradle/a @scope/ios/build .cache/ios/build/a");
    // Without a package.json beside them nobody can install packages again.
    addFiles(home, "code/App/sub/node_modules/", "a/android/build/a");
    auto context = projectsContext(home.root());
    const std::string packages = R"(
artifacts:@ | * | ~ | item $/node_modules | .. | [ ] review
    App: Reinstall with your package manager (npm, yarn, pnpm) to work on it again.
    Active project (changed today).)";
    const auto native = "\nartifacts:native:$/node_modules | Native build files in node_modules | "
                        "~/code/App/node_modules | items | @ | [x] safe" +
                        std::string(R"(
    + node_modules/@linked/pkg/ios/build
    + node_modules/@scope/.pkg/android/.gradle
    + node_modules/@scope/pkg/ios/build
    + node_modules/native/android/build
    + node_modules/native/android/.cxx
    + node_modules/native/ios/build
    + node_modules/z/android/build
    App: 7 Android/iOS build folders inside packages.
    The packages stay installed.)");
    const ProjectArtifactsScanner scanner;
    EXPECT_EQ(offers(scanner, context, home / "code/App"), packages + native);
    context.settings.includeNodeModules = false;
    EXPECT_EQ(offers(scanner, context, home / "code/App"), native);
}

/// What was done to a project last decides whether costly folders start out selected.
TEST(ProjectArtifactsScanner, tellsStaleProjectsFromActiveOnes) {
    const std::pair<std::string, std::string> rows[] = {
        // Files and the days since they were changed.
        {"a=3", "Active project (changed 3 days ago)."},
        {"a=1", "Active project (changed 1 days ago)."},
        {"a=-5", "Active project (changed today)."},
        {"a=30", "Active project (changed 30 days ago)."},
        {"a=31", "No changes in 31 days."},
        {"a=45 b=50", "No changes in 45 days."},
        // Fresh build output, the Finder's notes and deep changes are no work on the project.
        {"a=45 node_modules/x=0 build/x=0 .DS_Store=0 src/x=0 src/=40", "No changes in 40 days."},
        {"a=45 .git/logs/HEAD=2", "Active project (changed 2 days ago)."},
        {"a=45 .git/index=0", "Active project (changed today)."},
        {"a=45 .git/config=0", "No changes in 45 days."},
        // Without anything but artifacts the project's own folder tells.
        {"", "No changes in 99 days."},
    };
    for (const auto &[files, note] : rows) {
        const TemporaryTree home{{"code/P/.venv/pyvenv.cfg", bytes(9000)}};
        for (const auto &file : words(files)) {
            const auto path = "code/P/" + file.substr(0, file.find('='));
            const auto days = std::stoi(file.substr(file.find('=') + 1));
            const bool isFolder = path.ends_with('/');
            home.add(
                {path, isFolder ? decltype(Entry::what)(directory()) : bytes(1), daysAgo(days)});
        }
        // Making entries touched the project's folder.
        home.add({"code/P", directory(), daysAgo(99)});
        const auto box = note.starts_with("No changes") ? "[x]" : "[ ]";
        EXPECT_EQ(offers(ProjectArtifactsScanner(), projectsContext(home.root()), home / "code/P"),
                  fmt::format(R"(
artifacts:@ | * | ~ | item $/.venv | .. | {} review
    P: Python virtual environment.
    Recreate it and pip install to use it again.
    {})",
                              box, note));
    }
}

} // namespace
} // namespace klarbox::test
