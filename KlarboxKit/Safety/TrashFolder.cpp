#include "KlarboxKit/Safety/TrashFolder.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Platform/RenameExclusively.hpp"
#include "KlarboxKit/Safety/PinnedFolder.hpp"
#include "KlarboxKit/Safety/VolumeTop.hpp"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr const char *trashName = ".Trash";

constexpr mode_t ownMode = S_IRWXU;
/// Everybody may have a folder in it, nobody sees or removes another's.
constexpr mode_t sharedMode = S_ISVTX | S_IWUSR | S_IXUSR | S_IWGRP | S_IXGRP | S_IWOTH | S_IXOTH;

struct stat statusOf(const UniqueFD &folder) {
    struct stat status;
    if (::fstat(folder.get(), &status) != 0) {
        throw PlatformError::posix(errno);
    }
    return status;
}

/// Of an entry of the folder itself; nothing, with errno set, when it cannot be had.
std::optional<struct stat> statusOf(const UniqueFD &folder, const char *name) {
    struct stat status;
    const bool isThere = ::fstatat(folder.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    return isThere ? std::optional(status) : std::nullopt;
}

bool isOn(const UniqueFD &folder, std::uint64_t device) {
    return statusOf(folder).st_dev == device;
}

[[noreturn]] void throwUnusable(const char *name, int code) {
    throw PlatformError::fileChange(fmt::format("The folder “{}” couldn’t be used.", name), code);
}

[[noreturn]] void throwUnsafe(const char *name) {
    throw PlatformError::fileChange(
        fmt::format("The folder “{}” isn’t safe from other users.", name), EPERM);
}

bool isEmpty(const UniqueFD &folder) {
    DirectoryReader reader;
    DirectoryEntry entry;
    while (reader.fill(folder.get())) {
        if (reader.next(entry)) {
            return false;
        }
    }
    return reader.error() == 0;
}

/// The folder `name` of the folder `at`, made with this mode, and by root for this user, when it is
/// missing.
UniqueFD openOrMake(const UniqueFD &at, const char *name, mode_t mode, uid_t owner) {
    auto folder = openFolderToSearch(at.get(), name);
    if (!folder && errno == ENOENT) {
        // Private until it is known to be what was made here.
        if (::mkdirat(at.get(), name, ownMode) != 0) {
            // Somebody may have been faster.
            folder = errno == EEXIST ? openFolderToSearch(at.get(), name) : UniqueFD();
        } else if ((folder = openFolder(at.get(), name))) {
            // Only root can give it away; anybody else who may make it there may keep it.
            const bool isGiven = ::geteuid() == 0 && owner != 0;
            const bool isShared = mode != ownMode;
            // Another of this user's may have been put into its place. An empty one holds nothing
            // that anybody could come to own or see.
            if (statusOf(folder).st_uid != ::geteuid() ||
                ((isGiven || isShared) && !isEmpty(folder))) {
                throwUnsafe(name);
            }
            if (isGiven && ::fchown(folder.get(), owner, static_cast<gid_t>(-1)) != 0) {
                const int code = errno;
                ::unlinkat(at.get(), name, AT_REMOVEDIR);
                throwUnusable(name, code);
            }
            if (isShared) {
                // Where modes mean nothing, as on a memory stick, it stays this user's alone.
                (void)::fchmod(folder.get(), mode);
            }
        }
    }
    if (!folder) {
        throwUnusable(name, errno);
    }
    return folder;
}

/// The highest folder above the entry on the same mounted file system.
UniqueFD topOfVolume(const PinnedEntry &entry) {
    auto folder = openFolderToSearch(entry.parent(), ".");
    while (folder && !VolumeTop::isTop(folder.get())) {
        folder = openFolderToSearch(folder.get(), "..");
    }
    if (!folder) {
        throw PlatformError::posix(errno);
    }
    return folder;
}

bool isSafeToShare(const struct stat &status) {
    const bool isSticky = (status.st_mode & S_ISVTX) != 0;
    const bool isOpenToOthers = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    const bool isTrusted = status.st_uid == 0 || status.st_uid == ::getuid();
    return isTrusted && (isSticky || !isOpenToOthers);
}

/// What a Trash that is a link leads to. Whoever else could have made the link, or owns what it
/// leads to, would get things moved to where they want them.
UniqueFD openLinked(const FileURL &trash, uid_t owner, const SafetyGuard &guard) {
    const auto target = PinnedFolder::resolving(trash);
    auto folder = target ? openFolderToSearch(target->descriptor.get(), ".") : UniqueFD();
    if (!folder) {
        throwUnusable(trashName, errno);
    }
    if (owner != ::geteuid() || statusOf(folder).st_uid != ::geteuid()) {
        throwUnsafe(trashName);
    }
    if (!guard.mayBeEmptied(target->location)) {
        throw PlatformError::fileChange(
            fmt::format("The folder “{}” leads to “{}”, which is protected.", trashName,
                        Text::visible(target->location.path())),
            EPERM);
    }
    return folder;
}

} // namespace

std::optional<TrashFolder> TrashFolder::inHome(const FileURL &home, std::uint64_t device,
                                               const SafetyGuard &guard) {
    // Whoever names a home by a link means where it leads; below it nothing is followed.
    const UniqueFD folder(::open(home.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder && errno == ENOENT) {
        return std::nullopt;
    }
    const auto trash = folder ? statusOf(folder, trashName) : std::nullopt;
    if (!trash && errno != ENOENT) {
        throwUnusable(trashName, errno); // it may be the one that this belongs into
    }
    if (trash && S_ISLNK(trash->st_mode)) {
        auto linked = openLinked(home.appending(trashName), trash->st_uid, guard);
        return isOn(linked, device) ? std::optional(TrashFolder(std::move(linked))) : std::nullopt;
    }
    if (!isOn(folder, device)) {
        return std::nullopt;
    }
    // Someone's Trash stays theirs, also when root is the first to use it.
    return TrashFolder(openOrMake(folder, trashName, ownMode, statusOf(folder).st_uid));
}

TrashFolder TrashFolder::onVolume(const PinnedEntry &entry) {
    const auto top = topOfVolume(entry);
    const auto shared = openOrMake(top, ".Trashes", sharedMode, ::geteuid());
    if (!isSafeToShare(statusOf(shared))) {
        throwUnsafe(".Trashes");
    }
    const auto name = fmt::format("{}", ::getuid());
    auto own = openOrMake(shared, name.c_str(), ownMode, ::getuid());
    if (statusOf(own).st_uid != ::getuid()) {
        throwUnsafe(name.c_str());
    }
    return TrashFolder(std::move(own));
}

TrashFolder::Identity TrashFolder::identity() const {
    const auto status = statusOf(folder_);
    return {status.st_dev, status.st_ino};
}

int TrashFolder::take(const PinnedEntry &entry) {
    constexpr int few = 8; // numbers that are tried again rather than remembered
    const auto move = [&](const std::string &name) {
        return renameExclusively(entry.parent(), entry.name.c_str(), folder_.get(), name.c_str());
    };
    int code = move(entry.name);
    if (code != EEXIST) {
        return code;
    }
    const auto known = nextNumbers_.find(entry.name);
    int number = known == nextNumbers_.end() ? 2 : known->second;
    while ((code = move(numberedName(entry.name, number))) == EEXIST && number < INT_MAX) {
        ++number;
    }
    if (number > few) {
        nextNumbers_[entry.name] = number;
    }
    return code;
}

std::string numberedName(const std::string &name, int number) {
    const auto dot = name.rfind('.');
    // The dot that hides a file begins no extension: numbered before it, it would be seen. Nor does
    // one that half a sentence follows.
    constexpr std::size_t longestExtension = 64;
    const bool hasExtension = dot != std::string::npos && dot > 0 && dot + 1 < name.size() &&
                              name.size() - dot <= longestExtension;
    auto stem = hasExtension ? name.substr(0, dot) : name;
    const auto rest = fmt::format(" {}{}", number, hasExtension ? name.substr(dot) : "");
    if (stem.size() + rest.size() > NAME_MAX) {
        std::size_t end = NAME_MAX - rest.size();
        while (end > 0 && (static_cast<unsigned char>(stem[end]) & 0xC0) == 0x80) {
            --end;
        }
        stem.resize(end);
    }
    return stem + rest;
}

} // namespace klarbox
