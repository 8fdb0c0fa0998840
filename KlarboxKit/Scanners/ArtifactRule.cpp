#include "KlarboxKit/Scanners/ArtifactRule.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"

#include <algorithm>
#include <array>

namespace klarbox {

namespace {

/// Where a folder stands, as the markers see it.
struct Place {
    const FileURL &folder;
    const FileURL &parent;

    bool parentHolds(std::string_view name) const {
        return FileManager::exists(parent.appending(name));
    }
    bool isInGradleProject() const {
        return parentHolds("build.gradle") || parentHolds("build.gradle.kts");
    }
    bool isInUnityProject() const {
        return FS::isRealDirectory(parent.appending("ProjectSettings"));
    }
    bool isBesideXcodeProject() const {
        return std::ranges::any_of(
            ScannerSupport::childrenOrNone(parent), [](const FileURL &sibling) {
                return sibling.extension() == "xcodeproj" || sibling.extension() == "xcworkspace";
            });
    }
};

struct Row {
    std::array<std::string_view, 6> names; ///< unused places are empty
    bool (*isMarked)(const Place &);
    ArtifactRule rule;

    constexpr bool isFor(std::string_view name) const {
        return !name.empty() && std::ranges::count(names, name) > 0;
    }
};

using enum SafetyTier;

/// The first row decides whose name and markers both fit.
constexpr std::array rows{
    Row{{"Pods"},
        [](const Place &place) { return place.parentHolds("Podfile"); },
        {safe, "Run pod install to restore."}},
    Row{{"build"},
        [](const Place &place) { return place.isInGradleProject(); },
        {safe, "Gradle build output, rebuilt on the next build."}},
    Row{{"build"},
        [](const Place &place) { return place.parentHolds("pubspec.yaml"); },
        {safe, "Flutter build output, rebuilt on the next build."}},
    Row{{"build"},
        [](const Place &place) {
            return place.parent.lastComponent() == "ios" &&
                   (place.parentHolds("Podfile") || place.isBesideXcodeProject());
        },
        {safe, "iOS build output, rebuilt on the next build."}},
    Row{{".gradle"},
        [](const Place &place) {
            return place.parentHolds("settings.gradle") ||
                   place.parentHolds("settings.gradle.kts") || place.parentHolds("gradlew");
        },
        {safe, "Gradle's per-project cache, rebuilt on the next build."}},
    Row{{".cxx"},
        [](const Place &place) {
            return place.isInGradleProject() || place.parentHolds("CMakeLists.txt");
        },
        {safe, "Native C/C++ build output, rebuilt on the next build."}},
    Row{{".next", ".nuxt", ".svelte-kit", ".turbo", ".parcel-cache", ".angular"},
        [](const Place &place) { return place.parentHolds("package.json"); },
        {safe, "Framework build cache, rebuilt on the next build."}},
    Row{{"coverage"},
        [](const Place &place) { return place.parentHolds("package.json"); },
        {safe, "Test coverage report, recreated when tests run."}},
    Row{{".dart_tool"},
        [](const Place &place) { return place.parentHolds("pubspec.yaml"); },
        {safe, "Dart tool cache, rebuilt by flutter pub get."}},
    Row{{"target"},
        [](const Place &place) { return place.parentHolds("Cargo.toml"); },
        {safe, "Rust build output, rebuilt by cargo build."}},
    Row{{"target"},
        [](const Place &place) { return place.parentHolds("pom.xml"); },
        {safe, "Maven build output, rebuilt by mvn package."}},
    Row{{"DerivedData"},
        [](const Place &) { return true; },
        {safe, "Xcode build output, rebuilt on the next build."}},
    Row{{".venv", "venv"},
        [](const Place &place) {
            return FileManager::exists(place.folder.appending("pyvenv.cfg"));
        },
        {review, "Python virtual environment. Recreate it and pip install to use it again."}},
    Row{{"Library"},
        [](const Place &place) { return place.isInUnityProject(); },
        {review, "Unity regenerates it, but the reimport can take 30 minutes or more."}},
    Row{{"Temp", "Obj", "obj", "Logs"},
        [](const Place &place) { return place.isInUnityProject(); },
        {safe, "Unity working files, recreated when the project opens."}},
};

} // namespace

std::optional<ArtifactRule> ArtifactRule::match(std::string_view name, const FileURL &folder,
                                                const FileURL &parent) {
    const Place place{folder, parent};
    const auto row = std::ranges::find_if(rows, [&](const Row &candidate) {
        return candidate.isFor(name) && candidate.isMarked(place);
    });
    return row == rows.end() ? std::nullopt : std::optional(row->rule);
}

bool ArtifactRule::isArtifactName(std::string_view name) {
    return name == "node_modules" ||
           std::ranges::any_of(rows, [&](const Row &row) { return row.isFor(name); });
}

} // namespace klarbox
