#pragma once

#include <string>

namespace klarbox {

/// The process's current folder without a trailing slash, so that the root is the empty string (and
/// stands in when the current folder is gone).
std::string currentDirectory();

} // namespace klarbox
