#include "KlarboxKit/Safety/WalkerPool.hpp"

#include "KlarboxKit/Safety/DescriptorGrant.hpp"
#include "KlarboxKit/Safety/ProcessorCount.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

namespace klarbox {

namespace {

/// How long a thread waits to be given something before it ends: longer than the pauses between the
/// measurements of one scan, short enough that an idle process has no idle threads.
constexpr std::chrono::milliseconds patience{500};

/// Threads of ours take no signals: those are for the threads that wait for them.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t before_{};
};

} // namespace

WalkerPool &WalkerPool::shared() {
    // Never destroyed: its threads are not waited for when the process exits.
    static auto *const pool = new WalkerPool;
    return *pool;
}

WalkerPool::WalkerPool() {
    const std::size_t cores = processorCount();
    usual_ = cores - 1; // the owner walks too
    wanted_ = usual_;
    most_ = std::clamp<std::size_t>(cores * 4, 8, 32) - 1;
}

void WalkerPool::invite() {
    const std::lock_guard lock(mutex_);
    wanted_ = std::max(wanted_, usual_);
    updateRoom();
}

void WalkerPool::reportSlowDisk() {
    const std::lock_guard lock(mutex_);
    // One at a time: only while the threads there are have found work does another one pay.
    if (wanted_ < most_ && wanted_ == threads_ && idle_ == 0) {
        ++wanted_;
        updateRoom();
    }
}

void WalkerPool::give(TreeWalk &walk, FolderEntries entries) {
    const std::lock_guard lock(mutex_);
    gifts_.push_back({&walk, std::move(entries)});
    ++walk.given;
    if (walk.ownerIsIdle.load(std::memory_order_relaxed)) {
        walk.ownerIsIdle.store(false, std::memory_order_relaxed);
        walk.changed.notify_one();
    } else if (gifts_.size() <= idle_) {
        arrived_.notify_one();
    } else if (threads_ < wanted_ && !startThread()) {
        // The owner will come to what was given; nothing more is asked for until the next walk.
        wanted_ = threads_;
    }
    updateRoom();
}

void WalkerPool::wakeOwner(TreeWalk &walk) {
    const std::lock_guard lock(mutex_);
    walk.changed.notify_one();
}

bool WalkerPool::startThread() {
    auto grant = DescriptorGrant::ifAmple();
    if (!grant) {
        return false;
    }
    try {
        const SignalsBlocked blocked;
        std::thread([this, held = *std::move(grant)] { work(); }).detach();
    } catch (const std::system_error &) {
        return false; // no more threads to be had: the walk goes on with those there are
    }
    ++threads_;
    return true;
}

void WalkerPool::updateRoom() {
    const auto takers = idle_ + std::max(wanted_, threads_) - threads_;
    room_.store(static_cast<int>(takers) - static_cast<int>(gifts_.size()),
                std::memory_order_relaxed);
}

/// The next gift; none when there was nothing for so long that the thread is to end, which it is
/// then no longer counted as.
std::optional<WalkerPool::Gift> WalkerPool::awaitGift() {
    std::unique_lock lock(mutex_);
    ++idle_;
    updateRoom();
    const bool arrived = arrived_.wait_for(lock, patience, [&] { return !gifts_.empty(); });
    --idle_;
    std::optional<Gift> gift;
    if (arrived) {
        gift = std::move(gifts_.front());
        gifts_.pop_front();
    } else {
        --threads_;
        if (wanted_ > usual_) {
            wanted_ = std::max(usual_, threads_);
        }
    }
    updateRoom();
    return gift;
}

void WalkerPool::work() {
    while (auto gift = awaitGift()) {
        auto &walk = *gift->walk;
        std::exception_ptr failure;
        try {
            TreeWalker walker(walk, TreeWalker::Role::helper);
            walker.run(std::move(gift->entries));
        } catch (...) {
            failure = std::current_exception();
            walk.isStopped = true;
        }
        const std::lock_guard lock(mutex_);
        if (failure && !walk.failure) {
            walk.failure = std::move(failure);
        }
        if (--walk.given == 0) {
            // Under the lock: the walk is gone as soon as its owner sees the zero.
            walk.changed.notify_one();
        }
    }
}

void WalkerPool::finish(TreeWalk &walk, TreeWalker &owner) {
    std::unique_lock lock(mutex_);
    const auto unlocked = [&](auto &&action) {
        lock.unlock();
        try {
            action();
        } catch (...) {
            walk.isStopped = true;
            lock.lock();
            if (!walk.failure) {
                walk.failure = std::current_exception();
            }
            return;
        }
        lock.lock();
    };
    while (walk.given > 0) {
        const auto own = std::ranges::find(gifts_, &walk, &Gift::walk);
        if (own != gifts_.end()) {
            auto entries = std::move(own->entries);
            gifts_.erase(own);
            updateRoom();
            unlocked([&] { owner.run(std::move(entries)); });
            --walk.given;
            continue;
        }
        if (!walk.isStopped && walk.isCheckDue()) {
            unlocked([&] { owner.checkCancellation(); });
            continue;
        }
        walk.ownerIsIdle.store(true, std::memory_order_relaxed);
        walk.changed.wait(lock);
        walk.ownerIsIdle.store(false, std::memory_order_relaxed);
    }
    if (walk.failure) {
        std::rethrow_exception(walk.failure);
    }
}

} // namespace klarbox
