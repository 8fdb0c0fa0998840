#pragma once

#include "KlarboxKit/Safety/TreeWalk.hpp"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

namespace klarbox {

/// The process's walking threads, shared by all measurements going on at once. Threads are started
/// when a walk has something to give and end when nothing was given for a while; they never keep
/// the process from exiting. Safe from any thread.
class WalkerPool {
public:
    static WalkerPool &shared();

    /// Whether a walker of `walk` should give some of its entries away. Cheap enough to be asked
    /// for every folder; the answer may be a moment old.
    bool wants(const TreeWalk &walk) const {
        return room_.load(std::memory_order_relaxed) > 0 ||
               walk.ownerIsIdle.load(std::memory_order_relaxed);
    }

    /// Readies the pool for a walk that turned out to be long. Starts nothing yet.
    void invite();

    /// Hands entries of `walk` to whichever walker is free first.
    void give(TreeWalk &walk, FolderEntries entries);

    /// Tells that a walker waits for the disk most of the time, so that more walkers would pay.
    void reportSlowDisk();

    /// Lets the owner of `walk`, should it be idle, look whether a cancellation test is due.
    void wakeOwner(TreeWalk &walk);

    /// For the owner, with nothing left to do itself: helps with what was given away until all of
    /// it is walked. Throws what stopped a helper or what the cancellation test throws; by then no
    /// other thread uses the walk any more.
    void finish(TreeWalk &walk, TreeWalker &owner);

private:
    struct Gift {
        TreeWalk *walk;
        FolderEntries entries;
    };

    WalkerPool();
    void work();
    std::optional<Gift> awaitGift();
    bool startThread();
    void updateRoom();

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Gift> gifts_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    std::size_t usual_;  ///< threads that pay when nothing waits for the disk
    std::size_t wanted_; ///< threads that pay now
    std::size_t most_;
    std::atomic<int> room_ = 0; ///< gifts that would find a thread at once
};

} // namespace klarbox
