#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include <string_view>

namespace klarbox::SettingsStore {

/// Where the person's settings are saved: klarbox/settings.json in `XDG_CONFIG_HOME` or ~/.config.
FileURL defaultLocation();

/// What applies until settings are saved.
ScanSettings firstRunSettings();

/// Reads a settings file. Throws `InputError` that names the file and what is wrong with it.
ScanSettings load(const FileURL &file);

/// The settings saved at `file`, or the first-run settings when there is none. A damaged file is
/// an error, never a reason to fall back.
ScanSettings loadOrFirstRun(const FileURL &file);

/// Replaces the file, or the one that it is a link to, in one step. Throws `PlatformError`.
void save(const FileURL &file, const ScanSettings &settings);

} // namespace klarbox::SettingsStore
