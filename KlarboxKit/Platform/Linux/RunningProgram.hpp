#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <sys/types.h>

namespace klarbox {

/// The program that a process runs, held so that no other can come to pass for it: neither one that
/// the process becomes, nor one that gets its number.
struct RunningProgram {
    UniqueFD executable; ///< the file; a place only, to be opened anew for reading
    UniqueFD memory;     ///< the list of the process's mappings

    /// The program that the process `pid` runs at this moment; `process` is a descriptor of that
    /// process, which keeps its number from passing on. Takes the right to look at the process (of
    /// another user's: CAP_SYS_PTRACE). Throws a POSIX `PlatformError`, ESRCH when the process
    /// ended or became another program meanwhile.
    static RunningProgram of(pid_t pid, const UniqueFD &process);

    /// Whether the process has run this program without interruption until now. Takes no right to
    /// look at the process, and one system call. Safe from any thread.
    bool isRunning() const;
};

} // namespace klarbox
