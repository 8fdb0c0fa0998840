#pragma once

#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Walking/TreeVisitor.hpp"
#include "KlarboxKit/Walking/WalkedFolder.hpp"

#include <cstddef>
#include <list>
#include <memory>
#include <vector>

namespace klarbox {

class Walk;
struct FileStatus;

/// Descends through trees: depth first, every step relative to an open folder, following no link,
/// with a bounded number of descriptors. Neither depth nor width costs stack.
///
/// Used by one thread at a time; another may go on where one stopped.
class Walker {
public:
    /// Walks what `start` lists. `partOf` is null unless somebody waits for it.
    Walker(Walk &walk, WalkedFolder start, std::shared_ptr<HandedOver> partOf);
    Walker(const Walker &) = delete;
    Walker &operator=(const Walker &) = delete;

    /// Walks until all is done or what was handed over is all that is missing.
    void run(TreeVisitor &visitor);

    Walk &walk() const { return walk_; }
    HandedOver *partOf() const { return partOf_.get(); }
    /// What must be done before `run` can go on; null when nothing is.
    HandedOver *awaited() const {
        return depth_ > 0 ? levels_[depth_ - 1].handedOver.get() : nullptr;
    }
    /// Of what was walked.
    const FirstFailure &failure() const { return levels_.front().failure; }

    // For visitors.

    /// The descriptor of a folder on the way, or what the names in it are relative to; none when
    /// it could not be opened again.
    int descriptor(const WalkedFolder &folder) const;
    /// Whether a folder found in the deepest one is one of those that lead to it.
    bool isAncestor(const FileStatus &status) const;
    /// A walker for other entries of a folder on the way, which the caller lists and gives to the
    /// pool; none when there is no descriptor for it.
    std::list<Walker> forPartOf(WalkedFolder &folder) const;
    /// The entries that it begins with.
    EntryList &entries() { return levels_.front().entries; }

private:
    bool isClosed(std::size_t index) const { return index > 0 && !levels_[index].descriptor; }
    void enter(TreeVisitor &visitor, const SeenFolder &seen, const EntryList::Entry &entry);
    UniqueFD open(const SeenFolder &seen, const char *name);
    void leave(TreeVisitor &visitor);
    void abandon();
    void makeRoom(std::size_t window);
    void keepRest(WalkedFolder &level);
    UniqueFD reopen(std::size_t index, const UniqueFD &child) const;
    void share();

    Walk &walk_;
    const std::shared_ptr<HandedOver> partOf_;
    const std::size_t window_; ///< most folders kept open beside the first

    DirectoryReader reader_;
    std::vector<WalkedFolder> levels_; ///< the first `depth_` are in use; others keep their memory
    std::size_t depth_ = 1;
    std::size_t oldestOpen_ = 1;    ///< below it all levels but the first are closed
    std::size_t closedPending_ = 0; ///< closed levels with entries still to be visited
};

} // namespace klarbox
