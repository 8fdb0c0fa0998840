#include "KlarboxKit/Foundation/CurrentDirectory.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace klarbox {

std::string currentDirectory() {
    const std::unique_ptr<char, void (*)(void *)> path(::getcwd(nullptr, 0), std::free);
    const int code = path ? ENOENT : errno;
    // "(unreachable)…" is what the kernel says of a folder that a disk took along when it went.
    const std::string_view found = path ? path.get() : "";
    if (!found.starts_with('/')) {
        throw PlatformError::cocoa(PlatformError::fileReadNoSuchFile,
                                   "There is no current folder any more.", code);
    }
    return std::string(found == "/" ? "" : found);
}

} // namespace klarbox
