#include "KlarboxKit/Safety/RemovalWalk.hpp"

#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Safety/TreeRemoval.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace klarbox {

namespace {

/// Entries that one thread removes before others are asked to help: about what starting them costs.
constexpr std::size_t entriesAlone = 256;

/// The names in an open folder, all of them before any is removed, so that no removal disturbs the
/// listing. A listing that fails ends there; the folder then turns out not to be empty.
EntryList list(DirectoryReader &reader, int folder) {
    EntryList entries;
    std::uint64_t position = 0;
    while (reader.fill(folder)) {
        for (DirectoryEntry entry; reader.next(entry);) {
            entries.append(entry.name, position++, entry.kind != DirectoryEntry::Kind::other);
        }
    }
    return entries;
}

/// A damaged or hostile file system may list names that would lead elsewhere.
bool staysInFolder(const char *name) {
    return *name != '\0' && std::strchr(name, '/') == nullptr;
}

int unlink(int folder, const char *name, int flags) {
    return ::unlinkat(folder, name, flags) == 0 ? 0 : errno;
}

} // namespace

void FirstFailure::note(std::uint64_t position, int code) {
    if (code != 0 && (code_ == 0 || position < position_)) {
        position_ = position;
        code_ = code;
    }
}

RemovalWalk::RemovalWalk(TreeRemoval &removal, UniqueFD folder, EntryList entries,
                         std::shared_ptr<HandedOver> partOf)
    : removal_(removal),
      partOf_(std::move(partOf)) {
    levels_.push_back({.folder = std::move(folder),
                       .entries = std::move(entries),
                       .failure = {},
                       .handedOver = {}});
}

void RemovalWalk::run() noexcept {
    for (;;) {
        auto &level = levels_.back();
        if (!level.entries.empty()) {
            if (removal_.isStopped()) {
                level.failure.note(level.entries.take().tag, ECANCELED);
                level.entries.clear();
                continue;
            }
            if (removal_.wantsShare()) {
                share();
            }
            const auto entry = level.entries.take();
            const std::size_t index = levels_.size() - 1;
            const int code = remove(entry);
            levels_[index].failure.note(entry.tag, code);
            if (++removed_ == entriesAlone) {
                removal_.getHelp();
            }
        } else if (level.handedOver != nullptr) {
            // Whoever waits keeps nothing open that others could use.
            makeRoom(0);
            if (!removal_.isDone(*level.handedOver)) {
                return;
            }
            level.failure.note(level.handedOver->failure);
            level.handedOver.reset();
        } else if (levels_.size() > 1) {
            leave();
        } else {
            return;
        }
    }
}

/// Removes an entry of the deepest level, or enters it. Answers an errno value, 0 for none.
int RemovalWalk::remove(const EntryList::Entry &entry) {
    if (!staysInFolder(entry.name)) {
        return EINVAL;
    }
    const int folder = levels_.back().folder.get();
    if (!entry.isMarked) {
        const int code = unlink(folder, entry.name, 0);
        // It may be a folder by now; that is what the system says of one.
        if (code != EISDIR && code != EPERM) {
            return code;
        }
    }
    const auto status = FileStatus::of(folder, entry.name);
    if (!status) {
        return errno;
    }
    return status->isDirectory ? enter(entry, *status) : unlink(folder, entry.name, 0);
}

int RemovalWalk::enter(const EntryList::Entry &entry, const FileStatus &seen) {
    if (seen.device != removal_.device() || seen.isMountRoot) {
        return EXDEV;
    }
    makeRoom(removal_.openFolders());
    const auto open = [&] {
        const int above = levels_.back().folder.get();
        return seen.mayBeMountRoot ? openFolderOnSameMount(above, entry.name)
                                   : openFolder(above, entry.name);
    };
    auto folder = open();
    if (!folder && (errno == EMFILE || errno == ENFILE)) {
        makeRoom(0); // others took more than they were expected to
        folder = open();
    }
    if (!folder) {
        return errno;
    }
    const auto opened = FileStatus::ofOpen(folder.get());
    if (!opened || opened->device != seen.device || opened->inode != seen.inode ||
        opened->isMountRoot) {
        return ESTALE;
    }
    try {
        auto entries = list(reader_, folder.get());
        levels_.push_back({.folder = std::move(folder),
                           .inode = opened->inode,
                           .position = entry.tag,
                           .entries = std::move(entries),
                           .failure = {},
                           .handedOver = {}});
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
    return 0;
}

/// Goes back from the deepest level, which is empty but for what failed, and removes it.
void RemovalWalk::leave() {
    const auto child = std::move(levels_.back());
    levels_.pop_back();
    const std::size_t index = levels_.size() - 1;
    auto &level = levels_[index];
    if (index > 0 && index < oldestOpen_) {
        level.folder = reopen(index, child.folder);
        oldestOpen_ = index;
    }
    int code = child.failure.code();
    if (!level.folder) {
        // It was moved away, or is closed to us now. What it still holds stays, and so does it.
        level.entries.clear();
        code = code != 0 ? code : ESTALE;
    } else if (code == 0) {
        code = unlink(level.folder.get(), level.entries.lastTaken(), AT_REMOVEDIR);
    }
    level.failure.note(child.position, code);
}

/// Closes the folders furthest up until one more can be opened with at most `window` in use. The
/// first and the deepest stay open.
void RemovalWalk::makeRoom(std::size_t window) {
    while (oldestOpen_ + 1 < levels_.size() && levels_.size() - oldestOpen_ + 1 > window) {
        levels_[oldestOpen_++].folder.reset();
    }
}

/// Opens a closed level again: upwards from the level below it, or, when that was moved elsewhere
/// in the meantime, downwards by the names that led there. None when it is not the same folder.
UniqueFD RemovalWalk::reopen(std::size_t index, const UniqueFD &child) const {
    const auto isIt = [&](const UniqueFD &folder) {
        const auto status = folder ? FileStatus::ofOpen(folder.get()) : std::nullopt;
        return status && status->inode == levels_[index].inode &&
               status->device == removal_.device();
    };
    if (child) {
        auto above = openFolder(child.get(), "..");
        if (isIt(above)) {
            return above;
        }
    }
    UniqueFD folder;
    int from = levels_[0].folder.get();
    for (std::size_t above = 0; above < index; ++above) {
        folder = openFolder(from, levels_[above].entries.lastTaken());
        if (!folder) {
            return {};
        }
        from = folder.get();
    }
    return isIt(folder) ? std::move(folder) : UniqueFD();
}

/// Hands over half of what is left of the open folder furthest up: the largest piece at hand.
void RemovalWalk::share() {
    for (std::size_t index = 0; index < levels_.size(); index = std::max(index + 1, oldestOpen_)) {
        auto &level = levels_[index];
        const bool isDeepest = index + 1 == levels_.size();
        if (!level.folder || !level.entries.canSplit(isDeepest)) {
            continue;
        }
        UniqueFD folder(::fcntl(level.folder.get(), F_DUPFD_CLOEXEC, 0));
        if (!folder) {
            return;
        }
        try {
            if (level.handedOver == nullptr) {
                level.handedOver = std::make_shared<HandedOver>();
            }
            // All that can fail comes before the entries leave this walk.
            auto walk = std::make_unique<RemovalWalk>(removal_, std::move(folder), EntryList(),
                                                      level.handedOver);
            walk->levels_.front().entries = level.entries.split(isDeepest);
            removal_.handOver(std::move(walk));
        } catch (const std::bad_alloc &) {
            // They are removed here all the same, only later.
        }
        return;
    }
}

} // namespace klarbox
