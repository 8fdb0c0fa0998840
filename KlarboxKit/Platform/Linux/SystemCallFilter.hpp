#pragma once

namespace klarbox {

/// What a process may still do to the file system once `forbidSystemCalls` was called.
enum class FileAccess { reading, readingAndRemoving };

/// Keeps this process and all its later threads, for good, from system calls that a daemon of ours
/// has no use for and whoever took it over would: making and changing files, starting programs,
/// reaching into other processes, other namespaces, loading code into the kernel. Standard output
/// and error stay writable. Such calls then fail with EPERM. For the process's only thread, which
/// must have given up gaining privileges (`keepCapabilities`). Throws a POSIX `PlatformError`.
void forbidSystemCalls(FileAccess access);

} // namespace klarbox
