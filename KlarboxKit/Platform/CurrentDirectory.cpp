#include "KlarboxKit/Platform/CurrentDirectory.hpp"

#include <cstdlib>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace klarbox {

std::string currentDirectory() {
    const std::unique_ptr<char, void (*)(void *)> path(::getcwd(nullptr, 0), std::free);
    // "(unreachable)…" is what the kernel says of a folder outside this process's root.
    const std::string_view found = path ? path.get() : "";
    return found.starts_with('/') && found != "/" ? std::string(found) : "";
}

} // namespace klarbox
