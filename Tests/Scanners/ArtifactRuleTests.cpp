#include "KlarboxKit/Scanners/ArtifactRule.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using enum SafetyTier;

std::optional<ArtifactRule> matched(const TemporaryTree &tree, const std::string &path) {
    const auto folder = tree / path;
    return ArtifactRule::match(folder.lastComponent(), folder, folder.parent());
}

struct Row {
    std::string folder;
    std::vector<std::string> markers; ///< each alone makes the rule hold
    SafetyTier tier;
    std::string_view note;
};

constexpr std::string_view framework = "Framework build cache, rebuilt on the next build.";
constexpr std::string_view python =
    "Python virtual environment. Recreate it and pip install to use it again.";
constexpr std::string_view unity = "Unity working files, recreated when the project opens.";

const Row rows[] = {
    {"Pods", {"Podfile"}, safe, "Run pod install to restore."},
    {"build",
     {"build.gradle", "build.gradle.kts"},
     safe,
     "Gradle build output, rebuilt on the next build."},
    {"build", {"pubspec.yaml"}, safe, "Flutter build output, rebuilt on the next build."},
    {"ios/build",
     {"ios/Podfile", "ios/App.xcodeproj", "ios/App.xcworkspace"},
     safe,
     "iOS build output, rebuilt on the next build."},
    {".gradle",
     {"settings.gradle", "settings.gradle.kts", "gradlew"},
     safe,
     "Gradle's per-project cache, rebuilt on the next build."},
    {".cxx",
     {"build.gradle", "build.gradle.kts", "CMakeLists.txt"},
     safe,
     "Native C/C++ build output, rebuilt on the next build."},
    {".next", {"package.json"}, safe, framework},
    {".nuxt", {"package.json"}, safe, framework},
    {".svelte-kit", {"package.json"}, safe, framework},
    {".turbo", {"package.json"}, safe, framework},
    {".parcel-cache", {"package.json"}, safe, framework},
    {".angular", {"package.json"}, safe, framework},
    {"coverage", {"package.json"}, safe, "Test coverage report, recreated when tests run."},
    {".dart_tool", {"pubspec.yaml"}, safe, "Dart tool cache, rebuilt by flutter pub get."},
    {"target", {"Cargo.toml"}, safe, "Rust build output, rebuilt by cargo build."},
    {"target", {"pom.xml"}, safe, "Maven build output, rebuilt by mvn package."},
    {".venv", {".venv/pyvenv.cfg"}, review, python},
    {"venv", {"venv/pyvenv.cfg"}, review, python},
};

/// Those whose marker is a folder.
const Row unityRows[] = {
    {"Library",
     {"ProjectSettings"},
     review,
     "Unity regenerates it, but the reimport can take 30 minutes or more."},
    {"Temp", {"ProjectSettings"}, safe, unity},
    {"Obj", {"ProjectSettings"}, safe, unity},
    {"obj", {"ProjectSettings"}, safe, unity},
    {"Logs", {"ProjectSettings"}, safe, unity},
};

TEST(ArtifactRule, needsTheMarkerOfTheToolThatMadeTheFolder) {
    for (const auto &row : rows) {
        for (const auto &marker : row.markers) {
            SCOPED_TRACE(row.folder + " with " + marker);
            const TemporaryTree tree{{row.folder, directory()}};
            EXPECT_EQ(matched(tree, row.folder), std::nullopt);
            tree.add({marker, text("x")});
            EXPECT_EQ(matched(tree, row.folder), (ArtifactRule{row.tier, row.note}));

            // What stands elsewhere, or nearly has the name, is no marker.
            const TemporaryTree other{
                {row.folder, directory()}, {"sub/" + marker, text("x")}, {marker + "x", text("x")}};
            EXPECT_EQ(matched(other, row.folder), std::nullopt);

            // A marker may be a link, but one that leads somewhere. Xcode's are told by name.
            const bool isByName = marker.find(".xc") != std::string::npos;
            const TemporaryTree dangling{{row.folder, directory()}, {marker, link("nowhere")}};
            EXPECT_EQ(matched(dangling, row.folder).has_value(), isByName);
            const TemporaryTree linked{{row.folder, directory()}, {marker, link(".")}};
            EXPECT_TRUE(matched(linked, row.folder));
        }
    }
    for (const auto &row : unityRows) {
        SCOPED_TRACE(row.folder);
        const TemporaryTree tree{{row.folder, directory()}, {"ProjectSettings/x", text("x")}};
        EXPECT_EQ(matched(tree, row.folder), (ArtifactRule{row.tier, row.note}));
        const TemporaryTree linked{
            {row.folder, directory()}, {"p", directory()}, {"ProjectSettings", link("p")}};
        EXPECT_EQ(matched(linked, row.folder), std::nullopt);
        const TemporaryTree file{{row.folder, directory()}, {"ProjectSettings", text("x")}};
        EXPECT_EQ(matched(file, row.folder), std::nullopt);
    }
}

TEST(ArtifactRule, isDecidedByTheFirstToolAndByExactNames) {
    const TemporaryTree tree{
        {"DerivedData", directory()},   {"build", directory()},
        {"target", directory()},        {"build.gradle", text("x")},
        {"pubspec.yaml", text("x")},    {"Cargo.toml", text("x")},
        {"pom.xml", text("x")},         {"package.json", text("x")},
        {"Podfile", text("x")},         {"ProjectSettings", directory()},
        {"App.xcodeproj", directory()}, {"iOS/build", directory()},
        {"iOS/Podfile", text("x")},
    };
    EXPECT_EQ(matched(tree, "DerivedData"),
              (ArtifactRule{safe, "Xcode build output, rebuilt on the next build."}));
    EXPECT_EQ(matched(tree, "build")->note, "Gradle build output, rebuilt on the next build.");
    EXPECT_EQ(matched(tree, "target")->note, "Rust build output, rebuilt by cargo build.");
    for (const char *name : {"Build", "pods", "OBJ", "temp", "logs", "library", "deriveddata",
                             "Target", "node_modules", "src", ".git", "", "iOS/build"}) {
        EXPECT_EQ(matched(tree, name), std::nullopt) << name;
    }
}

} // namespace
} // namespace klarbox::test
