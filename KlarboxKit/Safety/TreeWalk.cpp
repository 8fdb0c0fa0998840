#include "KlarboxKit/Safety/TreeWalk.hpp"

#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Platform/ThreadWaits.hpp"
#include "KlarboxKit/Safety/DescriptorGrant.hpp"
#include "KlarboxKit/Safety/WalkerPool.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace klarbox {

namespace {

/// Entries after which a walker that is not alone brings the shared counter up to date and looks
/// whether it was stopped: often enough to stop soon, seldom enough not to be felt.
constexpr std::int64_t sharedInterval = 256;

/// From the kernel's cache an entry takes a microsecond or two. Whoever needs this long for each,
/// and slept so often meanwhile, waits for the disk; who only took long waits for a processor.
constexpr std::chrono::microseconds slowEntry{20};
constexpr std::int64_t entriesPerWait = 64;

} // namespace

TreeWalker::TreeWalker(TreeWalk &walk, Role role)
    : walk_(walk),
      role_(role),
      // Set aside: the first folder, one that is given away, and two for looking upwards.
      window_(std::max(walk.descriptorsPerWalker, DescriptorGrant::fewest) - 3),
      interval_(role == Role::owner ? TreeWalk::checkInterval : sharedInterval),
      left_(interval_) {
    if (role == Role::helper) {
        pool_ = &WalkerPool::shared();
        beginInterval();
    }
}

void TreeWalker::run(FolderEntries start) {
    levels_.resize(std::max<std::size_t>(levels_.size(), 1));
    levels_[0] = {.at = std::move(start), .isOpen = true, .isListed = true};
    depth_ = 1;
    oldestOpen_ = 1;
    closedPending_ = 0;
    while (depth_ > 0 && !isStopped_) {
        auto &level = levels_[depth_ - 1];
        if (!level.at.entries.empty()) {
            if (pool_ != nullptr && pool_->wants(walk_)) {
                share();
            }
            const auto entry = level.at.entries.take();
            if (entry.isMarked) {
                enter(level.at.device, entry.tag, entry.name);
            } else if (const auto folder =
                           measure(level, entry.name, DirectoryEntry::Kind::unknown)) {
                enter(folder->device, folder->inode, entry.name);
            }
        } else if (level.isListed) {
            leave();
        } else if (pool_ == nullptr) {
            listInOrder(level);
        } else {
            list(level);
        }
    }
    // What a stop leaves behind is closed now, not when this walker's next start happens to.
    for (std::size_t index = 0; index < depth_; ++index) {
        levels_[index].at.folder.reset();
    }
    walk_.total.fetch_add(std::exchange(total_, 0), std::memory_order_relaxed);
    countVisits();
}

/// Counts a visit. False when the walk is to stop before the entry is measured.
bool TreeWalker::visit() {
    return --left_ > 0 || endInterval();
}

/// Brings the shared counter up to date.
void TreeWalker::countVisits() {
    walk_.visited.fetch_add(interval_ - left_, std::memory_order_relaxed);
    left_ = interval_;
}

void TreeWalker::beginInterval() {
    intervalBegan_ = std::chrono::steady_clock::now();
    waitsBefore_ = threadWaits();
}

bool TreeWalker::endInterval() {
    countVisits();
    const bool isFirst = pool_ == nullptr;
    if (role_ == Role::owner) {
        checkCancellation();
    }
    if (isFirst) {
        pool_ = &WalkerPool::shared();
        pool_->invite();
        interval_ = sharedInterval;
    } else {
        const auto passed = std::chrono::steady_clock::now() - intervalBegan_;
        const auto waits = threadWaits() - waitsBefore_;
        if (passed > slowEntry * interval_ && waits * entriesPerWait > interval_) {
            pool_->reportSlowDisk();
        }
    }
    beginInterval();
    left_ = interval_;
    if (role_ == Role::helper && walk_.ownerIsIdle.load(std::memory_order_relaxed) &&
        walk_.isCheckDue()) {
        pool_->wakeOwner(walk_);
    }
    isStopped_ = walk_.isStopped.load(std::memory_order_relaxed);
    return !isStopped_;
}

void TreeWalker::checkCancellation() {
    // Others may have come further than one interval since the last time.
    while (walk_.isCheckDue() && !walk_.isStopped.load(std::memory_order_relaxed)) {
        walk_.nextCheck.fetch_add(TreeWalk::checkInterval, std::memory_order_relaxed);
        if (walk_.isCancelled()) {
            walk_.isStopped.store(true, std::memory_order_relaxed);
        }
    }
}

/// Visits an entry. Answers its status when it is a folder that is to be entered.
std::optional<FileStatus> TreeWalker::measure(const Level &level, const char *name,
                                              DirectoryEntry::Kind kind) {
    if (!visit()) {
        return std::nullopt;
    }
    const int folder = level.at.folder ? level.at.folder.get() : walk_.givenIn;
    auto status = kind == DirectoryEntry::Kind::other ? FileStatus::ofFile(folder, name)
                                                      : FileStatus::of(folder, name);
    if (!status) {
        return std::nullopt;
    }
    if (!status->isDirectory) {
        if (status->links <= 1 || walk_.counted.insert({status->device, status->inode})) {
            total_ = saturatingAdd(total_, status->allocatedBytes);
        }
        return std::nullopt;
    }
    total_ = saturatingAdd(total_, status->allocatedBytes);
    if (!level.at.folder) {
        return status; // what is given may lie on any file system
    }
    if (status->device != level.at.device || status->mountsWhenEntered) {
        visit(); // on the way back
        return std::nullopt;
    }
    // A folder can only be found in itself where it, or one above it, is mounted: only from there
    // on is it worth the look.
    if (status->mayBeMountRoot || walk_.entersMounts.load(std::memory_order_relaxed)) {
        if (isAncestor(level, *status)) {
            return std::nullopt;
        }
        walk_.entersMounts.store(true, std::memory_order_relaxed);
    }
    return status;
}

/// Whether a folder found in `level` is one of those that lead to it.
bool TreeWalker::isAncestor(const Level &level, const FileStatus &status) {
    if (status.inode == level.at.inode && status.device == level.at.device) {
        return true;
    }
    UniqueFD above;
    int folder = level.at.folder.get();
    for (std::size_t left = level.at.depth; left > 0; --left) {
        UniqueFD next = openFolder(folder, "..");
        const auto ancestor = next ? FileStatus::ofOpen(next.get()) : std::nullopt;
        if (!ancestor) {
            return true; // not entered rather than walked in circles
        }
        if (ancestor->inode == status.inode && ancestor->device == status.device) {
            return true;
        }
        above = std::move(next);
        folder = above.get();
    }
    return false;
}

/// Readies the next lot to be taken one by one, each folder entered where it stands in the listing.
void TreeWalker::listInOrder(Level &level) {
    level.at.entries.clear();
    keepLot(level);
}

/// Adds the next lot of a listing to the entries that are to be visited.
void TreeWalker::keepLot(Level &level) {
    level.isListed = !reader_.fill(level.at.folder.get());
    for (DirectoryEntry entry; reader_.next(entry);) {
        level.at.entries.append(entry.name, 0, false);
    }
    level.isListed = level.isListed || reader_.isAtEnd();
}

/// Visits everything in the folder and keeps the folders in it, to be entered later.
void TreeWalker::list(Level &level) {
    level.at.entries.clear();
    bool isFirstLot = true;
    bool isLast = false;
    for (; !isStopped_ && !isLast && reader_.fill(level.at.folder.get());
         isLast = reader_.isAtEnd()) {
        DirectoryEntry entry;
        // A folder that takes several lots is worth more than one walker.
        if (!isFirstLot && pool_->wants(walk_)) {
            if (UniqueFD folder{::fcntl(level.at.folder.get(), F_DUPFD_CLOEXEC, 0)}) {
                FolderEntries lot{.folder = std::move(folder),
                                  .device = level.at.device,
                                  .inode = level.at.inode,
                                  .depth = level.at.depth,
                                  .entries = {}};
                while (reader_.next(entry)) {
                    lot.entries.append(entry.name, 0, false);
                }
                pool_->give(walk_, std::move(lot));
                continue;
            }
        }
        isFirstLot = false;
        while (!isStopped_ && reader_.next(entry)) {
            if (const auto folder = measure(level, entry.name, entry.kind)) {
                level.at.entries.append(entry.name, folder->inode, true);
            }
        }
    }
    level.isListed = true;
}

/// Descends into a folder of the deepest level.
void TreeWalker::enter(std::uint64_t device, std::uint64_t inode, const char *name) {
    makeRoom(window_);
    const auto open = [&] {
        const auto &parent = levels_[depth_ - 1].at.folder;
        return openFolder(parent ? parent.get() : walk_.givenIn, name);
    };
    UniqueFD folder = open();
    if (!folder && (errno == EMFILE || errno == ENFILE)) {
        makeRoom(0); // others took more than they were expected to
        folder = open();
    }
    if (!folder) {
        visit(); // it counts twice all the same
        return;
    }
    const auto &above = levels_[depth_ - 1].at;
    const std::size_t depth = above.folder ? above.depth + 1 : 0;
    if (levels_.size() == depth_) {
        levels_.emplace_back();
    }
    auto &level = levels_[depth_++];
    level.at.folder = std::move(folder);
    level.at.device = device;
    level.at.inode = inode;
    level.at.depth = depth;
    level.at.entries.clear();
    level.isOpen = true;
    level.isListed = false;
}

/// Goes back from the deepest level to the nearest one that has entries left, or is open.
void TreeWalker::leave() {
    UniqueFD child = std::move(levels_[depth_ - 1].at.folder);
    // The first level is where this walker began: its folder is another walker's to leave.
    if (--depth_ > 0 && !visit()) {
        return;
    }
    while (depth_ > 0 && !levels_[depth_ - 1].isOpen) {
        auto &level = levels_[depth_ - 1];
        if (closedPending_ > 0) {
            child = reopen(depth_ - 1, child);
            if (!level.at.entries.empty()) {
                --closedPending_;
                if (child) {
                    level.at.folder = std::move(child);
                    level.isOpen = true;
                    break;
                }
            }
        }
        --depth_;
        if (!visit()) {
            return;
        }
    }
    oldestOpen_ = std::min(oldestOpen_, std::max<std::size_t>(depth_, 2) - 1);
}

/// Closes the folders furthest up until one more can be opened with at most `window` in use. The
/// first and the deepest stay open.
void TreeWalker::makeRoom(std::size_t window) {
    while (oldestOpen_ + 1 < depth_ && depth_ - oldestOpen_ + 1 > window) {
        close(levels_[oldestOpen_++]);
    }
}

void TreeWalker::close(Level &level) {
    // A listing cannot be taken up again where it was left, so its rest is kept.
    while (!level.isListed) {
        keepLot(level);
    }
    if (!level.at.entries.empty()) {
        ++closedPending_;
    }
    level.at.folder.reset();
    level.isOpen = false;
}

/// Opens a closed level again: upwards from the level below it, or, when that was moved elsewhere
/// in the meantime, downwards by the names that led there. None when it is no longer there.
UniqueFD TreeWalker::reopen(std::size_t index, const UniqueFD &child) const {
    const auto isIt = [&](const UniqueFD &folder) {
        const auto status = folder ? FileStatus::ofOpen(folder.get()) : std::nullopt;
        return status && status->inode == levels_[index].at.inode &&
               status->device == levels_[index].at.device;
    };
    if (child) {
        UniqueFD above = openFolder(child.get(), "..");
        if (isIt(above)) {
            return above;
        }
    }
    UniqueFD folder;
    int from = levels_[0].at.folder ? levels_[0].at.folder.get() : walk_.givenIn;
    for (std::size_t above = 0; above < index; ++above) {
        folder = openFolder(from, levels_[above].at.entries.lastTaken());
        if (!folder) {
            return {};
        }
        from = folder.get();
    }
    return isIt(folder) ? std::move(folder) : UniqueFD();
}

/// Gives away half of what is left of the open folder furthest up: the largest piece at hand.
void TreeWalker::share() {
    for (std::size_t index = 0; index < depth_; index = std::max(index + 1, oldestOpen_)) {
        auto &level = levels_[index].at;
        const bool isDeepest = index + 1 == depth_;
        if (!level.entries.canSplit(isDeepest)) {
            continue;
        }
        UniqueFD folder;
        if (level.folder) {
            folder = UniqueFD(::fcntl(level.folder.get(), F_DUPFD_CLOEXEC, 0));
            if (!folder) {
                return;
            }
        }
        pool_->give(walk_, {.folder = std::move(folder),
                            .device = level.device,
                            .inode = level.inode,
                            .depth = level.depth,
                            .entries = level.entries.split(isDeepest)});
        return;
    }
}

} // namespace klarbox
