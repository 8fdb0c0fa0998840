#pragma once

#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <string_view>

namespace klarbox {

/// The environment with what a JSON document says in place of the live facts; an absent key keeps
/// the live value. Throws `PlatformError` that names the key for an unknown key, a value of the
/// wrong type, a date that does not exist, or a tool whose path is not absolute.
ScanEnvironment environmentFromFile(std::string_view json, ScanEnvironment live);

} // namespace klarbox
