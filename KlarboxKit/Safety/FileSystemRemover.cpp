#include "KlarboxKit/Safety/FileSystemRemover.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"
#include "KlarboxKit/Safety/TrashFolder.hpp"

#include <cerrno>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Runs a removal, and tells whoever wanted it what did not happen when it fails.
template <typename Removal>
void naming(std::string_view name, std::string_view whatFailed, Removal removal) {
    try {
        removal();
    } catch (const PlatformError &error) {
        const auto sentence = fmt::format("“{}” couldn’t be {}.", Text::visible(name), whatFailed);
        if (error.domain() == PlatformError::Domain::cocoa) {
            throw PlatformError::cocoa(error.code(), sentence + " " + error.message(),
                                       error.cause() == nullptr ? 0 : error.cause()->code());
        }
        throw PlatformError::fileChange(sentence, error.code());
    }
}

} // namespace

/// The Trash folders that a remover found: entries of one folder go to the same, which need not be
/// looked up for each of a million.
class FileSystemRemover::Trashes {
public:
    /// Answers an errno value, 0 for none.
    int take(const PinnedEntry &entry, const FileURL &home, const SafetyGuard &guard) {
        const std::lock_guard lock(mutex_);
        const auto status =
            entry.status ? entry.status : FileStatus::of(entry.parent(), entry.name.c_str());
        if (!status) {
            return errno;
        }
        const bool isKnown = folder_.lock() == entry.folder;
        if (!isKnown) {
            lookUp(entry, home, guard);
        }
        // A file may have a device number of its own, as on layered file systems; folders tell.
        const bool isElsewhere = status->isDirectory && status->device != device_;
        if (isElsewhere || status->isMountRoot) {
            return EXDEV; // whatever is mounted there is not the folder's to give away
        }
        int code = give(entry);
        if (code == ENOENT && isKnown) {
            lookUp(entry, home, guard); // it may be the Trash that is gone
            code = give(entry);
        }
        return code;
    }

private:
    void lookUp(const PinnedEntry &entry, const FileURL &home, const SafetyGuard &guard) {
        folder_.reset();
        ofVolume_ = nullptr;
        const auto status = FileStatus::ofOpen(entry.parent());
        if (!status) {
            throw PlatformError::posix(errno);
        }
        device_ = status->device;
        auto found = TrashFolder::inHome(home, device_, guard);
        ofHome_ = found ? known(*std::move(found)) : nullptr;
        folder_ = entry.folder;
    }

    int give(const PinnedEntry &entry) {
        if (ofHome_) {
            const int code = ofHome_->take(entry);
            if (code != EXDEV) {
                return code;
            }
            // One file system may be mounted in several places; no move leads from one to another.
            ofHome_ = nullptr;
        }
        if (!ofVolume_) {
            ofVolume_ = known(TrashFolder::onVolume(entry));
        }
        return ofVolume_->take(entry);
    }

    /// The folder as it was found before, with what it knows of its names.
    std::shared_ptr<TrashFolder> known(TrashFolder found) {
        auto &folder = all_[found.identity()];
        if (!folder) {
            folder = std::make_shared<TrashFolder>(std::move(found));
        }
        return folder;
    }

    std::mutex mutex_;
    std::weak_ptr<const PinnedFolder> folder_; ///< that the rest is about
    std::uint64_t device_ = 0;
    std::shared_ptr<TrashFolder> ofHome_;   ///< null: nothing can be moved there
    std::shared_ptr<TrashFolder> ofVolume_; ///< null: not needed so far
    std::map<TrashFolder::Identity, std::shared_ptr<TrashFolder>> all_;
};

FileSystemRemover::FileSystemRemover(const FileURL &home)
    : home_(FileManager::realPath(home.path()).value_or(home.path())),
      guard_(home_),
      trashes_(std::make_shared<Trashes>()) {}

void FileSystemRemover::moveToTrash(const FileURL &url) const {
    naming(url.lastComponent(), "moved to the Trash", [&] { trash(PinnedEntry::open(url)); });
}

void FileSystemRemover::moveToTrash(const PinnedEntry &entry) const {
    naming(entry.name, "moved to the Trash", [&] { trash(entry); });
}

void FileSystemRemover::trash(const PinnedEntry &entry) const {
    if (const int code = trashes_->take(entry, home_, guard_); code != 0) {
        throw PlatformError::posix(code);
    }
}

void FileSystemRemover::deletePermanently(const FileURL &url) const {
    naming(url.lastComponent(), "removed", [&] { SecureDeleter().deletePermanently(url); });
}

void FileSystemRemover::deletePermanently(const PinnedEntry &entry,
                                          const CancellationTest &isCancelled) const {
    naming(entry.name, "removed", [&] { SecureDeleter().deletePermanently(entry, isCancelled); });
}

} // namespace klarbox
