#include "KlarboxKit/Scanners/ArtifactRule.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

std::optional<ArtifactRule> matched(const TemporaryTree &tree, const std::string &path) {
    const auto folder = tree / path;
    return ArtifactRule::match(folder.lastComponent(), folder, folder.parent());
}

/// Folders, the markers of which each alone makes the rule hold, s(afe) or r(eview), the note.
constexpr auto rules = R"(Pods|Podfile|s|Run pod install to restore.
build|build.gradle build.gradle.kts|s|Gradle build output, rebuilt on the next build.
build|pubspec.yaml|s|Flutter build output, rebuilt on the next build.
ios/build|ios/Podfile ios/A.xcodeproj|s|iOS build output, rebuilt on the next build.
ios/build|ios/A.xcworkspace|s|iOS build output, rebuilt on the next build.
.gradle|settings.gradle settings.gradle.kts|s|Gradle's per-project cache, rebuilt on the next build.
.gradle|gradlew|s|Gradle's per-project cache, rebuilt on the next build.
.cxx|build.gradle build.gradle.kts|s|Native C/C++ build output, rebuilt on the next build.
.cxx|CMakeLists.txt|s|Native C/C++ build output, rebuilt on the next build.
.next .nuxt .svelte-kit|package.json|s|Framework build cache, rebuilt on the next build.
.turbo .parcel-cache .angular|package.json|s|Framework build cache, rebuilt on the next build.
coverage|package.json|s|Test coverage report, recreated when tests run.
.dart_tool|pubspec.yaml|s|Dart tool cache, rebuilt by flutter pub get.
target|Cargo.toml|s|Rust build output, rebuilt by cargo build.
target|pom.xml|s|Maven build output, rebuilt by mvn package.
.venv|.venv/pyvenv.cfg|r|Python virtual environment. Recreate it and pip install to use it again.
venv|venv/pyvenv.cfg|r|Python virtual environment. Recreate it and pip install to use it again.
Library|ProjectSettings/|r|Unity regenerates it, but the reimport can take 30 minutes or more.
Temp Obj obj Logs|ProjectSettings/|s|Unity working files, recreated when the project opens.
)";

/// What becomes of a folder beside which, or in which, something stands at `path`.
std::optional<ArtifactRule> matchedWith(const std::string &folder, const std::string &path,
                                        decltype(Entry::what) what) {
    return matched({{folder, directory()}, {path, std::move(what)}}, folder);
}

void expectRule(const std::string &folder, std::string marker, const ArtifactRule &rule) {
    SCOPED_TRACE(folder + " with " + marker);
    const bool isFolder = marker.ends_with('/');
    marker = marker.substr(0, marker.find_last_not_of('/') + 1);
    EXPECT_EQ(matchedWith(folder, marker + (isFolder ? "/x" : ""), text("x")), rule);
    // What stands elsewhere, or nearly has the name, is no marker.
    EXPECT_EQ(matchedWith(folder, "sub/" + marker, text("x")), std::nullopt);
    EXPECT_EQ(matchedWith(folder, marker + "x", text("x")), std::nullopt);
    // A file may be a link, but one that leads somewhere. Xcode's are told by name.
    EXPECT_EQ(matchedWith(folder, marker, link(".")).has_value(), !isFolder);
    EXPECT_EQ(matchedWith(folder, marker, link("nowhere")).has_value(),
              marker.find(".xc") != std::string::npos);
    EXPECT_EQ(matchedWith(folder, marker, text("x")).has_value(), !isFolder);
}

TEST(ArtifactRule, needsTheMarkerOfTheToolThatMadeTheFolder) {
    std::istringstream lines(rules);
    for (std::string folders, markers, tier, note;
         std::getline(lines, folders, '|') && std::getline(lines, markers, '|') &&
         std::getline(lines, tier, '|') && std::getline(lines, note);) {
        for (const auto &folder : words(folders)) {
            for (const auto &marker : words(markers)) {
                expectRule(folder, marker,
                           {tier == "s" ? SafetyTier::safe : SafetyTier::review, note});
            }
        }
    }
}

TEST(ArtifactRule, isDecidedByTheFirstToolAndByExactNames) {
    const TemporaryTree tree{{"ProjectSettings", directory()}};
    addFiles(tree, "",
             "build.gradle pubspec.yaml Cargo.toml pom.xml package.json Podfile App.xcodeproj "
             "iOS/Podfile");
    EXPECT_EQ(matched(tree, "DerivedData"),
              (ArtifactRule{SafetyTier::safe, "Xcode build output, rebuilt on the next build."}));
    EXPECT_EQ(matched(tree, "build")->note, "Gradle build output, rebuilt on the next build.");
    EXPECT_EQ(matched(tree, "target")->note, "Rust build output, rebuilt by cargo build.");
    for (const char *name : {"Build", "pods", "OBJ", "temp", "logs", "library", "deriveddata",
                             "Target", "node_modules", "src", ".git", "", "iOS/build"}) {
        EXPECT_EQ(matched(tree, name), std::nullopt) << name;
    }
}

} // namespace
} // namespace klarbox::test
