#include "KlarboxKit/Safety/TreeRemoval.hpp"

#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Safety/ProcessorCount.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <new>
#include <system_error>
#include <utility>

namespace klarbox {

namespace {

/// Twice the cores: while one waits for the disk to bring what says which blocks are free, another
/// goes on. More only wait for each other, because a file system orders the changes to it.
constexpr unsigned threadsPerCore = 2;
constexpr unsigned mostThreads = 4;

/// Walks begun and not done, for each thread: a waiting one keeps two folders open.
constexpr std::size_t walksPerThread = 2;

/// Entries removed between two questions whether to stop: a question may cost as much as an entry.
constexpr std::size_t entriesPerQuestion = 256;

/// How often whoever may ask does so while others remove what is left.
constexpr std::chrono::milliseconds idleQuestions{20};

} // namespace

TreeRemoval::TreeRemoval(const PinnedEntry &entry, const ItemRemover::CancellationTest &isCancelled)
    : entry_(entry),
      grant_(DescriptorGrant::wait()),
      threads_(std::min(threadsPerCore * processorCount(), mostThreads)),
      isCancelled_(isCancelled),
      untilAsked_(entriesPerQuestion) {}

std::size_t TreeRemoval::openFolders() const {
    // Set aside: the first folder, one that is handed over, and two for looking upwards.
    return grant_.descriptors() - 3;
}

int TreeRemoval::run() {
    const auto status = FileStatus::ofOpen(entry_.parent());
    UniqueFD folder(status ? ::fcntl(entry_.parent(), F_DUPFD_CLOEXEC, 0) : -1);
    if (!folder) {
        return errno;
    }
    device_ = status->device;
    try {
        EntryList entries;
        entries.append(entry_.name, 0, true);
        ready_.reserve(threads_ * (walksPerThread + 1)); // `room_` may be a moment old
        ready_.push_back(
            std::make_unique<RemovalWalk>(*this, std::move(folder), std::move(entries), nullptr));
        walks_ = 1;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
    work();
    const int code = failure_.code();
    return code != 0 && isStopped_ ? ECANCELED : code;
}

void TreeRemoval::ask() noexcept {
    untilAsked_ = entriesPerQuestion;
    if (!isStopped_ && isCancelled_()) {
        isStopped_ = true;
    }
}

void TreeRemoval::getHelp() noexcept {
    const std::lock_guard lock(mutex_);
    if (!helpers_.empty()) {
        return;
    }
    try {
        helpers_.reserve(threads_);
        while (helpers_.size() + 1 < threads_) {
            auto grant = DescriptorGrant::ifAmple();
            if (!grant) {
                break;
            }
            helpers_.emplace_back([this, held = std::move(*grant)] { work(); });
        }
    } catch (const std::exception &) {
        // Fewer hands take longer and come to the same end.
    }
}

void TreeRemoval::handOver(std::unique_ptr<RemovalWalk> walk) noexcept {
    const std::lock_guard lock(mutex_);
    ++walk->partOf()->pending;
    ++walks_;
    ready_.push_back(std::move(walk));
    updateRoom();
    changed_.notify_one();
}

bool TreeRemoval::isDone(const HandedOver &handedOver) const {
    const std::lock_guard lock(mutex_);
    return handedOver.pending == 0;
}

/// Runs walks until the whole tree's is done.
void TreeRemoval::work() noexcept {
    std::unique_lock lock(mutex_);
    for (;;) {
        ++idle_;
        updateRoom();
        awaitWalk(lock);
        --idle_;
        if (walks_ == 0) {
            return;
        }
        auto walk = std::move(ready_.back());
        ready_.pop_back();
        updateRoom();
        lock.unlock();
        walk->run();
        lock.lock();
        settle(std::move(walk));
    }
}

/// Until there is something to run, or nothing more to wait for.
void TreeRemoval::awaitWalk(std::unique_lock<std::mutex> &lock) noexcept {
    const auto isOver = [&] { return walks_ == 0 || !ready_.empty(); };
    if (!mayAsk()) {
        changed_.wait(lock, isOver);
        return;
    }
    while (!changed_.wait_for(lock, idleQuestions, isOver)) {
        lock.unlock();
        ask();
        lock.lock();
    }
}

/// Under the lock: puts a walk that ran where it belongs now.
void TreeRemoval::settle(std::unique_ptr<RemovalWalk> walk) {
    if (auto *awaited = walk->awaited()) {
        if (awaited->pending > 0) {
            awaited->waiting = std::move(walk);
        } else {
            ready_.push_back(std::move(walk)); // the last of them was done in the meantime
        }
        return;
    }
    --walks_;
    auto *whole = walk->partOf();
    if (whole == nullptr) {
        failure_ = walk->failure();
        changed_.notify_all();
        return;
    }
    whole->failure.note(walk->failure());
    if (--whole->pending == 0 && whole->waiting != nullptr) {
        ready_.push_back(std::move(whole->waiting));
    }
}

void TreeRemoval::updateRoom() {
    const auto mostWalks = threads_ * walksPerThread;
    const auto room = static_cast<int>(idle_) - static_cast<int>(ready_.size());
    room_.store(walks_ < mostWalks ? room : 0, std::memory_order_relaxed);
}

} // namespace klarbox
