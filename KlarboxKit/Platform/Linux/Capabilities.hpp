#pragma once

#include <initializer_list>

namespace klarbox {

/// Gives up every capability of this process but these, for good: what it executes cannot regain
/// any either. Of these it keeps what it has. For the process's only thread. Throws a POSIX
/// `PlatformError`.
void keepCapabilities(std::initializer_list<int> kept);

/// Whether this process has a capability in effect.
bool hasCapability(int capability);

} // namespace klarbox
