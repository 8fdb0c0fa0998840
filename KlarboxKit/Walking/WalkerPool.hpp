#pragma once

#include "KlarboxKit/Walking/Walk.hpp"
#include "KlarboxKit/Walking/Walker.hpp"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

namespace klarbox {

/// The process's walking threads, shared by all walks going on at once. Threads are started when a
/// walk has something to give and end when nothing was given for a while; they never keep the
/// process from exiting. Safe from any thread.
class WalkerPool {
public:
    static WalkerPool &shared();

    /// Whether a walker of `walk` should give some of its entries away. Cheap enough to be asked
    /// for every entry; the answer may be a moment old.
    bool wants(const Walk &walk) const {
        return (room_.load(std::memory_order_relaxed) > 0 ||
                walk.ownerIsIdle_.load(std::memory_order_relaxed)) &&
               walk.unfinished_.load(std::memory_order_relaxed) < walk.limits_.parts;
    }

    /// Readies so many helping threads for a walk that turned out to be long. Starts none yet.
    void invite(std::size_t helpers);

    /// Hands over a walker, which has not run yet, to whichever thread is free first.
    void give(std::list<Walker> walker) noexcept;

    /// Whether all of what was handed over is walked.
    bool isDone(const HandedOver &handedOver) const;

    /// Tells that a walker waits for the disk most of the time, so that more of them would pay.
    void reportSlowDisk();

    /// For the owner: runs its walk to the end, alone until it gets help. Answers what failed;
    /// throws what ended the walk. No other thread uses the walk any more then.
    FirstFailure run(Walk &walk, WalkedFolder given);

private:
    using Lock = std::unique_lock<std::mutex>;

    WalkerPool();
    void work();
    bool awaitWalker(Lock &lock, std::list<Walker> &taken);
    template <typename Action>
    void unlocked(Lock &lock, Walk &walk, Action action);
    void advance(Lock &lock, std::list<Walker> &walker);
    void offer(std::list<Walker> &walker) noexcept;
    void awaitChange(Lock &lock, Walk &walk);
    bool startThread();
    void updateRoom();

    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::list<Walker> ready_; ///< for whoever is free; moved about without allocating
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    std::size_t usual_;  ///< threads that pay when nothing waits for the disk
    std::size_t wanted_; ///< threads that pay now
    std::size_t most_;
    std::atomic<int> room_ = 0; ///< walkers that would find a thread at once
};

} // namespace klarbox
