#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

namespace klarbox {

/// Opens the folder `name` of the open folder `at` for listing. Whatever was put in its place: a
/// symbolic link is not followed and a FIFO does not block. Where the system allows it, listing
/// does not change its date of access. None, with errno set, when it cannot be opened. `name` is
/// one component (".." among them), or an absolute path with AT_FDCWD; safe from any thread.
UniqueFD openFolder(int at, const char *name);

/// The same for a folder that is no mount point, EXDEV for one that is: for systems that do not
/// tell mount points otherwise. Those that know neither open it.
UniqueFD openFolderOnSameMount(int at, const char *name);

/// The same for a folder that is only a place to look below or to move things to, which takes no
/// right to list it. `name` may be "/".
UniqueFD openFolderToSearch(int at, const char *name);

} // namespace klarbox
