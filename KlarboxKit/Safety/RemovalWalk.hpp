#pragma once

#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Safety/EntryList.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace klarbox {

class RemovalWalk;
class TreeRemoval;

/// Of the failures among one folder's entries, the one that comes first in its listing, in whatever
/// order they happen.
class FirstFailure {
public:
    /// `code` is an errno value; 0 is no failure.
    void note(std::uint64_t position, int code);
    void note(const FirstFailure &other) { note(other.position_, other.code_); }
    int code() const { return code_; }

private:
    std::uint64_t position_ = 0;
    int code_ = 0;
};

/// What was handed over of one folder: it cannot be removed before the walks that got it are done.
/// Guarded by the lock of the `TreeRemoval`.
struct HandedOver {
    std::size_t pending = 0;              ///< walks that are not done
    FirstFailure failure;                 ///< of those that are
    std::unique_ptr<RemovalWalk> waiting; ///< the walk of the folder, once it has nothing else left
};

/// Removes some entries of one folder and everything below them: depth first, every step relative
/// to an open folder. An entry is what it is at the moment it is removed: a link is removed and not
/// followed, a folder is entered only when it is the very folder that was looked at, on the same
/// file system and no mount point. Neither depth nor width costs stack, and the number of folders
/// kept open is bounded.
///
/// Used by one thread at a time; another may go on where one stopped.
class RemovalWalk {
public:
    /// `entries` of `folder`: tagged with their positions in its listing, marked when they may be
    /// folders. `partOf` is null for the walk of the whole tree.
    RemovalWalk(TreeRemoval &removal, UniqueFD folder, EntryList entries,
                std::shared_ptr<HandedOver> partOf);

    /// Removes until all is done or what was handed over is all that is missing. Does not throw:
    /// what memory does not suffice for fails with ENOMEM and stays.
    void run() noexcept;

    /// What must be done before `run` can go on; null when the walk is done.
    HandedOver *awaited() const { return levels_.back().handedOver.get(); }

    const FirstFailure &failure() const { return levels_.front().failure; }
    HandedOver *partOf() const { return partOf_.get(); }

private:
    /// A folder on the way to the one being emptied.
    struct Level {
        UniqueFD folder; ///< none while it is closed for want of descriptors
        std::uint64_t inode = 0;
        std::uint64_t position = 0; ///< in the listing of the folder that holds it
        EntryList entries;          ///< still to be removed
        FirstFailure failure;
        std::shared_ptr<HandedOver> handedOver;
    };

    int remove(const EntryList::Entry &entry);
    int enter(const EntryList::Entry &entry, const FileStatus &seen);
    void leave();
    void makeRoom(std::size_t window);
    UniqueFD reopen(std::size_t index, const UniqueFD &child) const;
    void share();

    TreeRemoval &removal_;
    const std::shared_ptr<HandedOver> partOf_;
    DirectoryReader reader_;
    std::vector<Level> levels_;  ///< the first is the folder that holds the entries; never empty
    std::size_t oldestOpen_ = 1; ///< below it all levels but the first are closed
    std::size_t removed_ = 0;
};

} // namespace klarbox
