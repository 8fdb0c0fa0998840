#pragma once

#include <optional>
#include <sys/types.h>

/// What a program does for its own protection when it starts, before it starts a thread.
namespace klarbox::ProcessSecurity {

/// For an application that is installed set-group-ID: takes the group out of effect, so that files
/// it makes and programs it starts do not get it, and keeps it aside for the moment of connecting
/// to the helper. The process stays closed to debuggers and preloaded libraries, as the system made
/// it when it started it with the group. Nothing for a program without the group. Throws a POSIX
/// `PlatformError` when the group cannot be put aside.
void setGroupAside();

/// For a daemon: nothing it makes is accessible to others, its memory stays small whatever number
/// of threads it had at some time, and it may open as many files as many connections take.
void prepareDaemon();

/// For a daemon that removes files: gives up, for good, every privilege that its start took and its
/// work does not. It may override permissions of files, and delete in sticky folders; nothing else.
/// Before it starts a thread. Throws a POSIX `PlatformError`.
void confineDaemon();

/// The group of this name; nothing when the system has none. Throws a POSIX `PlatformError` when
/// that cannot be told.
std::optional<gid_t> groupNamed(const char *name);

} // namespace klarbox::ProcessSecurity
