#pragma once

#include "KlarboxKit/Safety/ItemRemover.hpp"

namespace klarbox {

/// Deletes with a descriptor-relative walk that never follows a symbolic link, never leaves the
/// file system of the item's parent folder, and checks that every folder it enters is the very
/// folder it examined. A concurrent rename, link swap or mount can make a removal fail but never
/// redirect it.
///
/// Stateless; safe from any thread. Depth costs neither stack nor descriptors without bound.
class SecureDeleter final : public ItemRemover {
public:
    /// Always throws the POSIX error ENOTSUP and touches nothing.
    void moveToTrash(const FileURL &url) const override;

    /// Throws a POSIX `PlatformError`: EINVAL for a path that is relative, "/" or holds "." or
    /// ".."; EXDEV at a mount point; ESTALE when a folder was replaced under the walk; otherwise
    /// the code of the call that failed. A failing entry does not stop its siblings; the folders
    /// above it stay, and the first failure in listing order is the one thrown.
    void deletePermanently(const FileURL &url) const override;

    void moveToTrash(const PinnedEntry &entry) const override;
    /// Without the path's failures; ECANCELED when it was stopped. A tree asks the test once for
    /// every 256 entries or so.
    void deletePermanently(const PinnedEntry &entry,
                           const CancellationTest &isCancelled) const override;
};

} // namespace klarbox
