#include "KlarboxKit/Safety/FileSystemRemover.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"
#include "KlarboxKit/Safety/TrashFolder.hpp"

#include <cerrno>
#include <fcntl.h>
#include <string_view>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Runs a removal, and tells whoever wanted it what did not happen when it fails.
template <typename Removal>
void naming(const FileURL &url, std::string_view whatFailed, Removal removal) {
    try {
        removal();
    } catch (const PlatformError &error) {
        const auto sentence =
            fmt::format("“{}” couldn’t be {}.", Text::visible(url.lastComponent()), whatFailed);
        if (error.domain() == PlatformError::Domain::cocoa) {
            throw PlatformError::cocoa(error.code(), sentence + " " + error.message(),
                                       error.cause() == nullptr ? 0 : error.cause()->code());
        }
        throw PlatformError::fileChange(sentence, error.code());
    }
}

int moved(const PinnedEntry &entry, const FileURL &home, const SafetyGuard &guard) {
    const auto status = FileStatus::of(entry.parent(), entry.name.c_str());
    const auto folder = status ? FileStatus::ofOpen(entry.parent()) : std::nullopt;
    if (!folder) {
        return errno;
    }
    // A file may have a device number of its own, as on layered file systems; folders tell.
    const bool isElsewhere = status->isDirectory && status->device != folder->device;
    if (isElsewhere || status->isMountRoot) {
        return EXDEV; // whatever is mounted there is not the folder's to give away
    }
    if (const auto trash = TrashFolder::inHome(home, folder->device, guard)) {
        // One file system may be mounted in several places, and a move from one to another is none.
        const int code = trash->take(entry);
        if (code != EXDEV) {
            return code;
        }
    }
    return TrashFolder::onVolume(entry).take(entry);
}

void trash(const PinnedEntry &entry, const FileURL &home, const SafetyGuard &guard) {
    if (const int code = moved(entry, home, guard); code != 0) {
        throw PlatformError::posix(code);
    }
}

} // namespace

FileSystemRemover::FileSystemRemover(const FileURL &home)
    : home_(FileManager::realPath(home.path()).value_or(home.path())),
      guard_(home_) {}

void FileSystemRemover::moveToTrash(const FileURL &url) const {
    naming(url, "moved to the Trash", [&] { trash(PinnedEntry::open(url), home_, guard_); });
}

void FileSystemRemover::moveToTrash(const PinnedEntry &entry) const {
    naming(entry.location(), "moved to the Trash", [&] { trash(entry, home_, guard_); });
}

void FileSystemRemover::deletePermanently(const FileURL &url) const {
    naming(url, "removed", [&] { SecureDeleter().deletePermanently(url); });
}

void FileSystemRemover::deletePermanently(const PinnedEntry &entry,
                                          const CancellationTest &isCancelled) const {
    naming(entry.location(), "removed",
           [&] { SecureDeleter().deletePermanently(entry, isCancelled); });
}

} // namespace klarbox
