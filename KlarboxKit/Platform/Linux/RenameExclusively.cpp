#include "KlarboxKit/Platform/RenameExclusively.hpp"

#include <cerrno>
#include <cstdio>

namespace klarbox {

int renameExclusively(int fromFolder, const char *fromName, int toFolder, const char *toName) {
    const auto flags = RENAME_NOREPLACE;
    return ::renameat2(fromFolder, fromName, toFolder, toName, flags) == 0 ? 0 : errno;
}

} // namespace klarbox
