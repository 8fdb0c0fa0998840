#include "KlarboxKit/Platform/RenameExclusively.hpp"

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace klarbox {

namespace {

/// Takes a free name with something empty that an entry of this kind can replace.
int holdName(int folder, const char *name, bool forFolder) {
    if (forFolder) {
        return ::mkdirat(folder, name, S_IRWXU) == 0 ? 0 : errno;
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    return UniqueFD(::openat(folder, name, flags, S_IRUSR | S_IWUSR)) ? 0 : errno;
}

} // namespace

int renameExclusively(int fromFolder, const char *fromName, int toFolder, const char *toName) {
    const auto flags = RENAME_NOREPLACE;
    if (::renameat2(fromFolder, fromName, toFolder, toName, flags) == 0) {
        return 0;
    }
    struct stat moved {};
    // What network file systems and those of user space say of a flag that they do not know.
    if (errno != EINVAL || ::fstatat(fromFolder, fromName, &moved, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    const bool isFolder = S_ISDIR(moved.st_mode);
    if (const int code = holdName(toFolder, toName, isFolder); code != 0) {
        return code;
    }
    if (::renameat(fromFolder, fromName, toFolder, toName) == 0) {
        return 0;
    }
    const int code = errno;
    ::unlinkat(toFolder, toName, isFolder ? AT_REMOVEDIR : 0);
    return code;
}

} // namespace klarbox
