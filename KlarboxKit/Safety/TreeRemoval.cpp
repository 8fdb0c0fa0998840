#include "KlarboxKit/Safety/TreeRemoval.hpp"

#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Walking/ProcessorCount.hpp"
#include "KlarboxKit/Walking/TreeVisitor.hpp"
#include "KlarboxKit/Walking/Walker.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <utility>

namespace klarbox {

namespace {

/// Twice the cores: while one waits for the disk to bring what says which blocks are free, another
/// goes on. More only wait for each other, because a file system orders the changes to it.
std::size_t threadsThatPay() {
    constexpr unsigned threadsPerCore = 2;
    constexpr unsigned most = 4;
    return std::min(threadsPerCore * processorCount(), most);
}

/// Walkers begun and not done, for each thread: a waiting one keeps two folders open.
constexpr std::size_t walkersPerThread = 2;

/// Entries that one thread removes before others are asked to help: about what starting them costs.
constexpr std::size_t entriesAlone = 256;

/// Entries removed between two questions whether to stop: a question may cost as much as an entry.
constexpr std::size_t entriesPerQuestion = 256;

/// A damaged or hostile file system may list names that would lead elsewhere.
bool staysInFolder(const char *name) {
    return *name != '\0' && std::strchr(name, '/') == nullptr;
}

int unlink(int folder, const char *name, int flags) {
    return ::unlinkat(folder, name, flags) == 0 ? 0 : errno;
}

} // namespace

class TreeRemoval::Visitor final : public TreeVisitor {
public:
    explicit Visitor(TreeRemoval &removal) : removal_(removal), isOwner_(removal.isOwner()) {}

    bool isStopped() override { return removal_.isStopped(); }

    std::optional<SeenFolder> visit(Walker &walker, WalkedFolder &folder,
                                    const EntryList::Entry &entry) override {
        countAndAsk();
        std::optional<SeenFolder> toEnter;
        const bool isStopped = removal_.isStopped();
        folder.failure.note(
            entry.tag, isStopped ? ECANCELED : remove(walker.descriptor(folder), entry, toEnter));
        return toEnter;
    }

    /// All names before any is removed, so that no removal disturbs the listing. One that fails
    /// ends there; the folder then turns out not to be empty.
    void list(Walker &, WalkedFolder &folder, DirectoryReader &reader) override {
        folder.isListed = true;
        try {
            std::uint64_t position = 0;
            while (reader.fill(folder.descriptor.get())) {
                for (DirectoryEntry entry; reader.next(entry);) {
                    const bool mayBeFolder = entry.kind != DirectoryEntry::Kind::other;
                    folder.entries.append(entry.name, position++, mayBeFolder);
                }
            }
        } catch (const std::bad_alloc &) {
            folder.entries.clear();
            folder.failure.note(0, ENOMEM);
        }
    }

    void refused(WalkedFolder &above, const EntryList::Entry &entry, int code) override {
        above.failure.note(entry.tag, code);
    }

    /// It is empty but for what failed.
    void leave(Walker &walker, WalkedFolder &above, const WalkedFolder &folder) override {
        int code = folder.failure.code();
        if (code == 0) {
            const int descriptor = walker.descriptor(above);
            code = descriptor < 0 ? ESTALE
                                  : unlink(descriptor, above.entries.lastTaken(), AT_REMOVEDIR);
        }
        above.failure.note(folder.position, code);
    }

private:
    void countAndAsk() {
        if (isOwner_ && --removal_.untilAsked_ == 0) {
            removal_.ask();
        }
        if (++visited_ == entriesAlone && !removal_.isShared()) {
            removal_.getHelp(threadsThatPay() - 1);
        }
    }

    /// Removes an entry, or answers that it is a folder to be entered. Answers an errno value, 0
    /// for none.
    int remove(int folder, const EntryList::Entry &entry, std::optional<SeenFolder> &toEnter) const;

    TreeRemoval &removal_;
    const bool isOwner_;
    std::size_t visited_ = 0;
};

int TreeRemoval::Visitor::remove(int folder, const EntryList::Entry &entry,
                                 std::optional<SeenFolder> &toEnter) const {
    if (!staysInFolder(entry.name)) {
        return EINVAL;
    }
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
    if (!status->isDirectory) {
        return unlink(folder, entry.name, 0);
    }
    if (status->device != removal_.device_ || status->isMountRoot) {
        return EXDEV;
    }
    toEnter = {status->device, status->inode, status->mayBeMountRoot};
    return 0;
}

TreeRemoval::TreeRemoval(const PinnedEntry &entry, const ItemRemover::CancellationTest &isCancelled)
    : Walk(Purpose::change, entry.parent(),
           {.walkers = threadsThatPay(), .parts = threadsThatPay() * walkersPerThread},
           isCancelled),
      entry_(entry),
      untilAsked_(entriesPerQuestion) {}

int TreeRemoval::run() {
    const auto status = FileStatus::ofOpen(entry_.parent());
    if (!status) {
        return errno;
    }
    device_ = status->device;
    try {
        WalkedFolder start;
        start.device = device_;
        start.inode = status->inode;
        start.entries.append(entry_.name, 0, true);
        const int code = Walk::run(std::move(start)).code();
        return code != 0 && isStopped() ? ECANCELED : code;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

void TreeRemoval::advance(Walker &walker) {
    Visitor visitor(*this);
    walker.run(visitor);
}

void TreeRemoval::ask() {
    untilAsked_ = entriesPerQuestion;
    if (isCancelled_ && !isStopped() && isCancelled_()) {
        stop();
    }
}

} // namespace klarbox
