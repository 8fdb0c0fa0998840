#pragma once

#include "KlarboxKit/Foundation/NameList.hpp"

#include <string>
#include <string_view>
#include <vector>

/// What the system keeps in the highest folder of every mounted file system: Trash folders, and
/// what its own services note there. Whatever that folder is used for, these are never part of it.
/// Stateless; safe from any thread.
namespace klarbox::VolumeTop {

/// Whether the open folder is the highest that can be reached on its file system; a part of one
/// with a device number of its own counts as one. Throws a POSIX `PlatformError` when the folder
/// cannot be looked at.
bool isTop(int folder);

/// Whether the system keeps an entry of this name at the top of a volume.
bool isSystemsName(std::string_view name);

/// Takes what is the system's out of the names of entries of the open folder; only at the top of a
/// volume anything is. Throws as `isTop` does, and then the names are as they were.
void leaveOutSystemsOwn(int folder, std::vector<std::string> &names);
void leaveOutSystemsOwn(int folder, NameList &names);

} // namespace klarbox::VolumeTop
