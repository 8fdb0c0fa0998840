#pragma once

#include <string>

namespace klarbox {

/// The process's current folder without a trailing slash, so that the root is the empty string.
/// Throws `PlatformError` when the folder is gone: nothing else may stand in for it.
std::string currentDirectory();

} // namespace klarbox
