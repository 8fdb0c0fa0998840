#include "KlarboxKit/Walking/Walker.hpp"

#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Walking/Walk.hpp"
#include "KlarboxKit/Walking/WalkerPool.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <utility>

namespace klarbox {

namespace {

bool isIt(const UniqueFD &folder, std::uint64_t device, std::uint64_t inode) {
    const auto status = folder ? FileStatus::ofOpen(folder.get()) : std::nullopt;
    return status && status->device == device && status->inode == inode;
}

} // namespace

Walker::Walker(Walk &walk, WalkedFolder start, std::shared_ptr<HandedOver> partOf)
    : walk_(walk),
      partOf_(std::move(partOf)),
      // Set aside: the first folder, one that is given away, and two for looking upwards.
      window_(walk.descriptors() - 3) {
    levels_.push_back(std::move(start));
    levels_.front().isListed = true;
}

void Walker::run(TreeVisitor &visitor) {
    while (depth_ > 0) {
        auto &level = levels_[depth_ - 1];
        if (visitor.isStopped()) {
            abandon();
        } else if (!level.entries.empty()) {
            if (walk_.wantsShare()) {
                share();
            }
            const auto entry = level.entries.take();
            if (const auto folder = visitor.visit(*this, level, entry)) {
                enter(visitor, *folder, entry);
            }
        } else if (!level.isListed) {
            level.entries.clear();
            visitor.list(*this, level, reader_);
        } else if (level.handedOver != nullptr) {
            // Whoever waits keeps nothing open that others could use.
            makeRoom(0);
            if (!WalkerPool::shared().isDone(*level.handedOver)) {
                return;
            }
            level.failure.note(level.handedOver->failure);
            level.handedOver.reset();
        } else {
            leave(visitor);
        }
    }
}

int Walker::descriptor(const WalkedFolder &folder) const {
    return &folder == levels_.data() && !folder.descriptor ? walk_.givenIn()
                                                           : folder.descriptor.get();
}

bool Walker::isAncestor(const FileStatus &status) const {
    const auto &deepest = levels_[depth_ - 1];
    if (status.inode == deepest.inode && status.device == deepest.device) {
        return true;
    }
    UniqueFD above;
    int folder = deepest.descriptor.get();
    for (std::size_t left = deepest.depth; left > 0; --left) {
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

/// Descends into a folder of the deepest level.
void Walker::enter(TreeVisitor &visitor, const SeenFolder &seen, const EntryList::Entry &entry) {
    auto folder = open(seen, entry.name);
    int code = folder ? 0 : errno;
    if (code == 0 && levels_.size() == depth_) {
        try {
            levels_.emplace_back();
        } catch (const std::bad_alloc &) {
            code = ENOMEM;
        }
    }
    auto &above = levels_[depth_ - 1];
    if (code != 0) {
        visitor.refused(above, entry, code);
        return;
    }
    auto &level = levels_[depth_++];
    level.descriptor = std::move(folder);
    level.device = seen.device;
    level.inode = seen.inode;
    level.depth = above.descriptor ? above.depth + 1 : 0;
    level.position = entry.tag;
    level.entries.clear();
    level.isListed = false;
    level.failure = {};
}

/// None, with errno set, when it cannot be opened, or is not what was seen where that matters.
UniqueFD Walker::open(const SeenFolder &seen, const char *name) {
    makeRoom(window_);
    const auto attempt = [&] {
        const int above = descriptor(levels_[depth_ - 1]);
        return walk_.changes() && seen.mayBeMountRoot ? openFolderOnSameMount(above, name)
                                                      : openFolder(above, name);
    };
    auto folder = attempt();
    if (!folder && (errno == EMFILE || errno == ENFILE)) {
        makeRoom(0); // others took more than they were expected to
        folder = attempt();
    }
    if (folder && walk_.changes()) {
        const auto opened = FileStatus::ofOpen(folder.get());
        if (!opened || opened->device != seen.device || opened->inode != seen.inode ||
            opened->isMountRoot) {
            folder.reset();
            errno = ESTALE;
        }
    }
    return folder;
}

/// Goes back from the deepest level. One that was closed need not be opened again for what is only
/// looked at, unless there, or further up, are entries left: the way there leads through it.
void Walker::leave(TreeVisitor &visitor) {
    auto &level = levels_[--depth_];
    if (depth_ == 0) {
        level.descriptor.reset();
        return; // where this walker began is another's to leave
    }
    auto &above = levels_[depth_ - 1];
    if (isClosed(depth_ - 1) && (walk_.changes() || closedPending_ > 0)) {
        above.descriptor = reopen(depth_ - 1, level.descriptor);
        closedPending_ -= above.entries.empty() ? 0 : 1;
        if (!above.descriptor) {
            // It was moved away, or is closed to us now. What it still holds stays as it is.
            above.entries.clear();
        }
    }
    oldestOpen_ = std::min(oldestOpen_, std::max<std::size_t>(depth_, 2) - 1);
    visitor.leave(*this, above, level);
    level.descriptor.reset();
}

/// Leaves everything as it is, and closes it now.
void Walker::abandon() {
    auto &first = levels_.front();
    if (depth_ > 1 || !first.entries.empty() || first.handedOver != nullptr) {
        first.failure.note(0, ECANCELED);
    }
    for (; depth_ > 0; --depth_) {
        auto &level = levels_[depth_ - 1];
        level.descriptor.reset();
        level.handedOver.reset();
    }
}

/// Closes the folders furthest up until one more can be opened with at most `window` in use. The
/// first and the deepest stay open.
void Walker::makeRoom(std::size_t window) {
    for (; oldestOpen_ + 1 < depth_ && depth_ - oldestOpen_ + 1 > window; ++oldestOpen_) {
        auto &level = levels_[oldestOpen_];
        keepRest(level);
        if (level.descriptor && !level.entries.empty()) {
            ++closedPending_;
        }
        level.descriptor.reset();
    }
}

/// A listing cannot be taken up again where it was left.
void Walker::keepRest(WalkedFolder &level) {
    while (!level.isListed) {
        level.isListed = !reader_.fill(level.descriptor.get());
        for (DirectoryEntry entry; reader_.next(entry);) {
            level.entries.append(entry.name, 0, false);
        }
    }
}

/// Opens a closed level again: upwards from the level below it, or, when that was moved elsewhere
/// in the meantime, downwards by the names that led there. None when it is not the same folder.
UniqueFD Walker::reopen(std::size_t index, const UniqueFD &child) const {
    const auto &level = levels_[index];
    if (child) {
        auto above = openFolder(child.get(), "..");
        if (isIt(above, level.device, level.inode)) {
            return above;
        }
    }
    UniqueFD folder;
    int from = descriptor(levels_.front());
    for (std::size_t above = 0; above < index; ++above) {
        folder = openFolder(from, levels_[above].entries.lastTaken());
        if (!folder) {
            return {};
        }
        from = folder.get();
    }
    return isIt(folder, level.device, level.inode) ? std::move(folder) : UniqueFD();
}

std::list<Walker> Walker::forPartOf(WalkedFolder &folder) const {
    std::list<Walker> other;
    WalkedFolder part;
    part.device = folder.device;
    part.inode = folder.inode;
    part.depth = folder.depth;
    if (folder.descriptor) {
        part.descriptor = UniqueFD(::fcntl(folder.descriptor.get(), F_DUPFD_CLOEXEC, 0));
        if (!part.descriptor) {
            return other;
        }
    }
    if (walk_.changes() && folder.handedOver == nullptr) {
        folder.handedOver = std::make_shared<HandedOver>();
    }
    other.emplace_back(walk_, std::move(part), folder.handedOver);
    return other;
}

/// Gives away half of what is left of the open folder furthest up: the largest piece at hand.
void Walker::share() {
    for (std::size_t index = 0; index < depth_; index = std::max(index + 1, oldestOpen_)) {
        auto &level = levels_[index];
        const bool isDeepest = index + 1 == depth_;
        if (!level.entries.canSplit(isDeepest)) {
            continue;
        }
        try {
            // All that can fail comes before the entries leave this walker.
            if (auto other = forPartOf(level); !other.empty()) {
                other.front().entries() = level.entries.split(isDeepest);
                WalkerPool::shared().give(std::move(other));
            }
        } catch (const std::bad_alloc &) {
            // They are walked here all the same, only later.
        }
        return;
    }
}

} // namespace klarbox
