#pragma once

#include "KlarboxKit/Walking/WalkedFolder.hpp"

#include <cstdint>
#include <optional>

namespace klarbox {

class DirectoryReader;
class Walker;

/// A folder as it was when it was looked at.
struct SeenFolder {
    std::uint64_t device;
    std::uint64_t inode;
    bool mayBeMountRoot; ///< where entering a mount point must fail
};

/// What a walk is for: told of every entry and folder on the way. Serves one walker on one thread.
/// What it throws ends the walk.
class TreeVisitor {
public:
    virtual ~TreeVisitor() = default;

    /// Whether to go no further. Cheap: asked before every step.
    virtual bool isStopped() = 0;

    /// The next entry of the walker's deepest folder. Answers what is to be entered.
    virtual std::optional<SeenFolder> visit(Walker &walker, WalkedFolder &folder,
                                            const EntryList::Entry &entry) = 0;

    /// Reads the deepest folder, whose list is empty: adds the entries that are to be visited, and
    /// says when it is listed to its end. May visit by itself what need not be entered.
    virtual void list(Walker &walker, WalkedFolder &folder, DirectoryReader &reader) = 0;

    /// What `visit` answered cannot be entered; `code` is an errno value.
    virtual void refused(WalkedFolder &above, const EntryList::Entry &entry, int code) = 0;

    /// A folder was walked to its end; `above` holds it, and is the walker's deepest now.
    virtual void leave(Walker &walker, WalkedFolder &above, const WalkedFolder &folder) = 0;
};

} // namespace klarbox
