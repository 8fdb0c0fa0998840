#pragma once

namespace klarbox {

/// What a process may still do to the file system once `forbidSystemCalls` was called.
enum class FileAccess { reading, readingAndRemoving };

/// Keeps this thread and all that it starts, for good, from system calls that a daemon of ours has
/// no use for and whoever took it over would: making, writing and changing files (those of standard
/// output and error as well), starting programs, reaching into other processes, users and
/// namespaces, loading code into the kernel. They fail with EPERM. One call is left by which files
/// can be made and emptied, though not written (`openat2`): what it is to do lies in memory, where
/// a filter cannot look, and opening without following links takes it. To be called before there
/// are other threads, and after `keepCapabilities`. Throws a POSIX `PlatformError`.
void forbidSystemCalls(FileAccess access);

} // namespace klarbox
