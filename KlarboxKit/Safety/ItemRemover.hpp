#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <functional>

namespace klarbox {

struct PinnedEntry;

/// Removes one file-system item. Callers validate the location with `SafetyGuard` first; a remover
/// knows no root. Implementations are safe from any thread.
///
/// The engine asks for what `SafetyGuard` pinned. A remover that implements only the operations on
/// a location is told where the entry was pinned, and only while that path still leads to the
/// folder held open: `SafetyRefusal` otherwise. What happens to the path from then on is its own
/// business.
class ItemRemover {
public:
    /// Asked now and then whether to stop; empty stands for never. Called on the thread that asked
    /// for the removal, with no lock held; must not throw.
    using CancellationTest = std::function<bool()>;

    virtual ~ItemRemover() = default;

    /// Moves the item to the Trash. Throws `PlatformError`.
    virtual void moveToTrash(const FileURL &url) const = 0;

    /// Deletes the item and, for a folder, everything below it. Throws `PlatformError`: the first
    /// failure met, after everything else that could be deleted is gone.
    virtual void deletePermanently(const FileURL &url) const = 0;

    /// The same for an entry that is held; by default by its path.
    virtual void moveToTrash(const PinnedEntry &entry) const;

    /// The same for an entry that is held; by default by its path, to its end. Where the remover
    /// can stop, it throws once the test answered yes and something is left; that stays as it is.
    virtual void deletePermanently(const PinnedEntry &entry,
                                   const CancellationTest &isCancelled) const;
};

} // namespace klarbox
