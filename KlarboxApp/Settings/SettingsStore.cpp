#include "KlarboxApp/Settings/SettingsStore.hpp"

#include "KlarboxApp/InputError.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <cstdlib>

#include <fmt/format.h>

namespace klarbox::SettingsStore {

namespace {

/// Far more than any sensible settings; what is larger is not a settings file.
constexpr std::size_t largestFile = 16 << 20;

} // namespace

FileURL defaultLocation() {
    // The environment is not changed after start. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char *configured = std::getenv("XDG_CONFIG_HOME");
    // A relative path there is to be ignored, as the base directory convention says.
    const auto folder = configured != nullptr && configured[0] == '/'
                            ? FileURL(configured)
                            : FileManager::homeDirectory().appending(".config");
    return folder.appending("klarbox/settings.json");
}

ScanSettings firstRunSettings() {
    return {
        .projectRoots = {ScanSettings::defaultProjectRoots.begin(),
                         ScanSettings::defaultProjectRoots.end()},
        .includeNodeModules = true,
        .staleProjectDays = 30,
        .excludedPaths = {},
    };
}

ScanSettings load(const FileURL &file) {
    try {
        return ScanSettings::decode(FileManager::contents(file, largestFile));
    } catch (const PlatformError &error) {
        throw InputError(fmt::format("settings file {}: {}", Text::visible(file.path()),
                                     Text::visible(error.message())));
    }
}

ScanSettings loadOrFirstRun(const FileURL &file) {
    // A dangling link is a damaged setup, not an absent file.
    return FileManager::type(file) ? load(file) : firstRunSettings();
}

void save(const FileURL &file, const ScanSettings &settings) {
    // Who keeps settings elsewhere, among others of theirs say, wants them changed there.
    FileManager::writeAtomically(FileManager::behindOwnLink(file), settings.encoded());
}

} // namespace klarbox::SettingsStore
