#include "KlarboxKit/Platform/Linux/RunningProgram.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/PeerProcess.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

namespace {

UniqueFD openOf(pid_t pid, const char *what, int flags) {
    UniqueFD file(::open(fmt::format("/proc/{}/{}", pid, what).c_str(), flags | O_CLOEXEC));
    if (!file) {
        throw PlatformError::posix(errno == ENOENT ? ESRCH : errno);
    }
    return file;
}

} // namespace

RunningProgram RunningProgram::of(pid_t pid, const UniqueFD &process) {
    // In this order: when the memory is still in use at the end, the executable that was opened
    // between is the one it was made from.
    RunningProgram program{.executable = {}, .memory = openOf(pid, "maps", O_RDONLY)};
    program.executable = openOf(pid, "exe", O_PATH);
    // As long as the process exists its number is its own.
    if (!program.isRunning() || hasEnded(process)) {
        throw PlatformError::posix(ESRCH);
    }
    return program;
}

bool RunningProgram::isRunning() const {
    // The list belongs to the memory that the process had when it was opened. Becoming another
    // program gives a process new memory, and nothing is said of the old any more; this holds also
    // when it has become the first program again, which its executable would not tell.
    char byte = 0;
    ssize_t got = 0;
    do {
        got = ::pread(memory.get(), &byte, 1, 0);
    } while (got < 0 && errno == EINTR);
    return got == 1;
}

} // namespace klarbox
