#pragma once

#include <optional>
#include <string>

namespace klarbox {

/// The bundle identifier of the running program: `CFBundleIdentifier` of the information property
/// list embedded in its executable. Nothing when it has none (a test program, say) or its list
/// cannot be read. Read once per process; safe from any thread.
std::optional<std::string> mainBundleIdentifier();

} // namespace klarbox
