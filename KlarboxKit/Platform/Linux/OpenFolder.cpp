#include "KlarboxKit/Platform/OpenFolder.hpp"

#include "KlarboxKit/Platform/OpenForReading.hpp"

#include <fcntl.h>

namespace klarbox {

UniqueFD openFolder(int at, const char *name) {
    return openForReading(at, name, O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK);
}

UniqueFD openFolderToSearch(int at, const char *name) {
    return UniqueFD(::openat(at, name, O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_PATH));
}

} // namespace klarbox
