#pragma once

#include <string>

namespace klarbox {

/// Whether no symbolic link stands anywhere in an absolute path or at its end. False also for what
/// does not exist, and where it cannot be told in one step. Safe from any thread.
bool isLinkFree(const std::string &path);

} // namespace klarbox
