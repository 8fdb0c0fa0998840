#pragma once

#include "KlarboxKit/Platform/FileURL.hpp"

namespace klarbox {

/// Removes one file-system item. Callers validate the location with `SafetyGuard` first; a remover
/// knows no root. Implementations are safe from any thread.
class ItemRemover {
public:
    virtual ~ItemRemover() = default;

    /// Moves the item to the Trash. Throws `PlatformError`.
    virtual void moveToTrash(const FileURL &url) const = 0;

    /// Deletes the item and, for a folder, everything below it. Throws `PlatformError`: the first
    /// failure met, after everything else that could be deleted is gone.
    virtual void deletePermanently(const FileURL &url) const = 0;
};

} // namespace klarbox
