#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Safety/ItemRemover.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include <memory>

namespace klarbox {

/// Removes the user's own files, as the user. Deletes with the same walk as `SecureDeleter`; the
/// Trash is that of one home folder, or of the item's own volume when that is another one. Nothing
/// in a Trash is ever replaced, nothing is copied, and a link is moved or deleted as itself.
///
/// Throws `PlatformError`s in the Cocoa domain that name the item and are caused by the POSIX error
/// underneath. Immutable; safe from any thread.
class FileSystemRemover final : public ItemRemover {
public:
    /// `home` is the folder whose ".Trash" is used; by whatever links it is named, what counts is
    /// where they lead.
    explicit FileSystemRemover(const FileURL &home);

    void moveToTrash(const FileURL &url) const override;
    void deletePermanently(const FileURL &url) const override;
    void moveToTrash(const PinnedEntry &entry) const override;
    void deletePermanently(const PinnedEntry &entry,
                           const CancellationTest &isCancelled) const override;

private:
    class Trashes;

    void trash(const PinnedEntry &entry) const;

    FileURL home_;
    SafetyGuard guard_;
    std::shared_ptr<Trashes> trashes_; ///< has a lock of its own
};

} // namespace klarbox
