#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

namespace klarbox {

/// Opens what `name` stands for, seen from the open folder `at` (AT_FDCWD: an absolute path), for
/// reading; `flags` are further ones of open(2). Where the system allows it, what is read keeps its
/// date of access. None, with errno set, when it cannot be opened. Safe from any thread.
UniqueFD openForReading(int at, const char *name, int flags);

} // namespace klarbox
