#include "KlarboxKit/Walking/WalkerPool.hpp"

#include "KlarboxKit/Walking/DescriptorGrant.hpp"
#include "KlarboxKit/Walking/ProcessorCount.hpp"

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

/// How often an owner with nothing to do asks whether to stop while others walk.
constexpr std::chrono::milliseconds idleQuestions{20};

/// Threads started meanwhile take no signals: a handler of the program's is to run on one of the
/// threads that its author knew of.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all); // a macro on some systems
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

void WalkerPool::invite(std::size_t helpers) {
    const std::lock_guard lock(mutex_);
    wanted_ = std::max(wanted_, helpers);
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

void WalkerPool::give(std::list<Walker> walker) noexcept {
    const std::lock_guard lock(mutex_);
    ++walker.front().walk().unfinished_;
    if (auto *whole = walker.front().partOf()) {
        ++whole->pending;
    }
    offer(walker);
}

bool WalkerPool::isDone(const HandedOver &handedOver) const {
    const std::lock_guard lock(mutex_);
    return handedOver.pending == 0;
}

/// Under the lock: readies a walker to be run, and sees to it that somebody does.
void WalkerPool::offer(std::list<Walker> &walker) noexcept {
    auto &walk = walker.front().walk();
    ready_.splice(ready_.end(), walker);
    if (walk.ownerIsIdle_.load(std::memory_order_relaxed)) {
        walk.ownerIsIdle_.store(false, std::memory_order_relaxed);
        walk.changed_.notify_one();
    } else if (ready_.size() <= idle_) {
        arrived_.notify_one();
    } else if (threads_ < wanted_ && !startThread()) {
        // The owner will come to what was given; nothing more is asked for until the next walk.
        wanted_ = threads_;
    }
    updateRoom();
}

bool WalkerPool::startThread() {
    auto grant = DescriptorGrant::ifAmple();
    if (!grant) {
        return false;
    }
    try {
        const SignalsBlocked blocked;
        std::thread([this, held = *std::move(grant)] { work(); }).detach();
    } catch (const std::exception &) {
        return false; // no more threads to be had: the walk goes on with those there are
    }
    ++threads_;
    return true;
}

void WalkerPool::updateRoom() {
    const auto takers = idle_ + std::max(wanted_, threads_) - threads_;
    room_.store(static_cast<int>(takers) - static_cast<int>(ready_.size()),
                std::memory_order_relaxed);
}

/// Takes the next walker. False when there was none for so long that the thread is to end, which it
/// is then no longer counted as.
bool WalkerPool::awaitWalker(Lock &lock, std::list<Walker> &taken) {
    const auto mayRun = [](const Walker &walker) {
        const auto &walk = walker.walk();
        return walk.running_ < walk.limits_.walkers;
    };
    auto next = ready_.end();
    ++idle_;
    updateRoom();
    arrived_.wait_for(lock, patience, [&] {
        next = std::ranges::find_if(ready_, mayRun);
        return next != ready_.end();
    });
    --idle_;
    if (next != ready_.end()) {
        taken.splice(taken.end(), ready_, next);
    } else {
        --threads_;
        if (wanted_ > usual_) {
            wanted_ = std::max(usual_, threads_);
        }
    }
    updateRoom();
    return !taken.empty();
}

/// Does something of the walk's without the lock. What it throws ends the walk.
template <typename Action>
void WalkerPool::unlocked(Lock &lock, Walk &walk, Action action) {
    lock.unlock();
    std::exception_ptr thrown;
    try {
        action();
    } catch (...) {
        thrown = std::current_exception();
        walk.stop();
    }
    lock.lock();
    if (thrown && !walk.thrown_) {
        walk.thrown_ = std::move(thrown);
    }
}

/// Runs a walker and puts it where it belongs then.
void WalkerPool::advance(Lock &lock, std::list<Walker> &walker) {
    auto &walk = walker.front().walk();
    unlocked(lock, walk, [&] { walk.advance(walker.front()); });
    if (auto *awaited = walker.front().awaited()) {
        if (awaited->pending > 0) {
            awaited->waiting.splice(awaited->waiting.end(), walker);
        } else {
            offer(walker); // the last of them was done in the meantime
        }
        return;
    }
    const auto &failure = walker.front().failure();
    if (auto *whole = walker.front().partOf()) {
        whole->failure.note(failure);
        if (--whole->pending == 0 && !whole->waiting.empty()) {
            offer(whole->waiting);
        }
    } else {
        walk.failed_.note(failure);
    }
    --walk.unfinished_;
}

void WalkerPool::work() {
    Lock lock(mutex_);
    for (std::list<Walker> walker; awaitWalker(lock, walker); walker.clear()) {
        auto &walk = walker.front().walk();
        ++walk.running_;
        advance(lock, walker);
        --walk.running_;
        // Under the lock: the walk is gone as soon as its owner sees that nothing is left.
        if (walk.unfinished_ == 0) {
            walk.changed_.notify_one();
        }
    }
}

FirstFailure WalkerPool::run(Walk &walk, WalkedFolder given) {
    std::list<Walker> walker;
    walker.emplace_back(walk, std::move(given), nullptr);
    Lock lock(mutex_);
    advance(lock, walker);
    while (walk.unfinished_ > 0) {
        walker.clear();
        const auto own =
            std::ranges::find(ready_, &walk, [](const Walker &one) { return &one.walk(); });
        if (own != ready_.end()) {
            walker.splice(walker.end(), ready_, own);
            updateRoom();
            advance(lock, walker);
        } else {
            awaitChange(lock, walk);
        }
    }
    if (walk.thrown_) {
        std::rethrow_exception(walk.thrown_);
    }
    return walk.failed_;
}

/// Until there may be something for the owner to do. Others walk: only the owner may ask whether
/// they should stop.
void WalkerPool::awaitChange(Lock &lock, Walk &walk) {
    walk.ownerIsIdle_.store(true, std::memory_order_relaxed);
    const bool isTimeToAsk =
        walk.isCancelled_ ? walk.changed_.wait_for(lock, idleQuestions) == std::cv_status::timeout
                          : (walk.changed_.wait(lock), false);
    walk.ownerIsIdle_.store(false, std::memory_order_relaxed);
    if (isTimeToAsk) {
        unlocked(lock, walk, [&] { walk.ask(); });
    }
}

} // namespace klarbox
