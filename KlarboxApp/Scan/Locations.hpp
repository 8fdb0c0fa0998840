#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <string>

/// Where a scan looks. Throws `InputError` for what is no folder, may not be entered, or leads into
/// a system of its own, such as a container's.
namespace klarbox::Locations {

/// The disk to look at. One that is this machine's own, whatever links lead to it, is known by the
/// name that everything of this machine has.
FileURL startupDisk(const std::string &path);

/// The home folder at `path`. An empty one means the person's own on this machine's disk, and the
/// only one of any other: somebody's own home beside the disk of another is not what they ask for.
FileURL home(const std::string &path, const FileURL &disk);

} // namespace klarbox::Locations
