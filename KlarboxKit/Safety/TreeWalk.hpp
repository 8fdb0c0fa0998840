#pragma once

#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/EntryList.hpp"
#include "KlarboxKit/Safety/FileIDSet.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <vector>

namespace klarbox {

class WalkerPool;

/// A folder and the entries of it that are to be walked. The marked ones are folders that were
/// counted already and are only to be entered; their tag is their inode.
struct FolderEntries {
    UniqueFD folder; ///< none when the entries are what was given
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::size_t depth = 0; ///< folders between it and the given path it was reached from
    EntryList entries;
};

/// One measurement: what its walkers share. Lives in the frame of the thread that asked for it.
struct TreeWalk {
    /// Entries visited between two questions whether to stop, and before the first.
    static constexpr std::int64_t checkInterval = 2048;

    explicit TreeWalk(const DiskUsage::CancellationTest &test) : isCancelled(test) {}

    bool isCheckDue() const {
        return isCancelled &&
               visited.load(std::memory_order_relaxed) >= nextCheck.load(std::memory_order_relaxed);
    }

    const DiskUsage::CancellationTest &isCancelled;
    std::size_t descriptorsPerWalker = 0;
    int givenIn = -1; ///< open folder that what was given lies in; AT_FDCWD for absolute paths

    std::atomic<bool> isStopped = false;
    std::atomic<bool> entersMounts = false; ///< of folders on the same file system
    std::atomic<std::int64_t> total = 0;    ///< bytes, of walkers that are done
    std::atomic<std::int64_t> visited = 0;  ///< entries
    std::atomic<std::int64_t> nextCheck = checkInterval;
    FileIDSet counted; ///< files with several links

    // The rest belongs to the pool and is guarded by its lock.
    std::atomic<bool> ownerIsIdle = false; ///< read without the lock, as a hint
    std::size_t given = 0;                 ///< lists given away and not yet walked to the end
    std::exception_ptr failure;
    std::condition_variable changed;
};

/// Walks trees for a `TreeWalk` on one thread: depth first, every folder through its descriptor,
/// with a bounded number of them open. Neither depth nor width costs stack.
///
/// The thread that asked for the measurement is the owner: it alone tests for cancellation, and it
/// visits the first entries by itself in the order of the listings, so that small trees cost no
/// thread and the first test comes at an exact entry. All others are helpers.
class TreeWalker {
public:
    enum class Role { owner, helper };

    TreeWalker(TreeWalk &walk, Role role);
    TreeWalker(const TreeWalker &) = delete;
    TreeWalker &operator=(const TreeWalker &) = delete;

    /// Walks everything below, but for what is given to other walkers, and adds what was measured
    /// to the walk's total.
    void run(FolderEntries start);

    /// Asks whether to stop, as often as that is due. For the owner; passes on what the test
    /// throws.
    void checkCancellation();

    /// Whether other walkers may have got something of this walk.
    bool isShared() const { return pool_ != nullptr; }

private:
    /// A folder on the way from the start to the one being looked at.
    struct Level {
        FolderEntries at;
        bool isOpen = false;   ///< the descriptor is at hand (or none is needed)
        bool isListed = false; ///< the listing was read to its end
    };

    bool visit();
    bool endInterval();
    void beginInterval();
    void countVisits();
    std::optional<FileStatus> measure(const Level &level, const char *name,
                                      DirectoryEntry::Kind kind);
    static bool isAncestor(const Level &level, const FileStatus &status);
    void listInOrder(Level &level);
    void keepLot(Level &level);
    void list(Level &level);
    void enter(std::uint64_t device, std::uint64_t inode, const char *name);
    void leave();
    void makeRoom(std::size_t window);
    void close(Level &level);
    UniqueFD reopen(std::size_t index, const UniqueFD &child) const;
    void share();

    TreeWalk &walk_;
    const Role role_;
    WalkerPool *pool_ = nullptr; ///< none while the owner walks alone
    const std::size_t window_;   ///< most folders kept open beside the first

    DirectoryReader reader_;
    std::vector<Level> levels_; ///< the first `depth_` are in use; the others keep their memory
    std::size_t depth_ = 0;
    std::size_t oldestOpen_ = 1;    ///< below it all levels but the first are closed
    std::size_t closedPending_ = 0; ///< closed levels with entries still to be walked

    std::int64_t total_ = 0;
    std::int64_t interval_; ///< entries until the shared counter is brought up to date
    std::int64_t left_;     ///< of those, still to come
    bool isStopped_ = false;
    std::chrono::steady_clock::time_point intervalBegan_;
    std::int64_t waitsBefore_ = 0; ///< the interval
};

} // namespace klarbox
