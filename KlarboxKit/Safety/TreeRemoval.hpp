#pragma once

#include "KlarboxKit/Safety/DescriptorGrant.hpp"
#include "KlarboxKit/Safety/ItemRemover.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/RemovalWalk.hpp"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace klarbox {

/// Removes one entry and everything below it, subtrees side by side when there are enough of them.
/// What is gone in the end, what stays and which failure is told is what one thread, taking every
/// entry in the order of the listings, would have come to. Lives as long as the call of `run`.
class TreeRemoval {
public:
    /// May wait until other walks of this process have closed some descriptors.
    TreeRemoval(const PinnedEntry &entry, const ItemRemover::CancellationTest &isCancelled);

    /// Answers the errno value of the failure that comes first in the order of the listings, 0 for
    /// none. A failing entry and the folders above it stay; everything else is gone. Once the test
    /// answered yes all that is left stays, and if that is anything the answer is ECANCELED.
    int run();

    // For the walks, on any thread.

    std::uint64_t device() const { return device_; }
    /// Counts an entry that is about to be removed, and asks whether to stop when that is due and
    /// this is the thread that may. Answers whether to stop.
    bool isStopped() noexcept {
        if (mayAsk() && --untilAsked_ == 0) {
            ask();
        }
        return isStopped_.load(std::memory_order_relaxed);
    }
    /// How many folders one walk may keep open beside the first.
    std::size_t openFolders() const;
    /// Whether a walk should hand some of its entries over; the answer may be a moment old.
    bool wantsShare() const { return room_.load(std::memory_order_relaxed) > 0; }
    /// Starts the helping threads, if that was not done yet.
    void getHelp() noexcept;
    /// Takes a walk that is part of another for whichever thread is free first.
    void handOver(std::unique_ptr<RemovalWalk> walk) noexcept;
    bool isDone(const HandedOver &handedOver) const;

private:
    bool mayAsk() const { return isCancelled_ && std::this_thread::get_id() == asking_; }
    void ask() noexcept;
    void work() noexcept;
    void awaitWalk(std::unique_lock<std::mutex> &lock) noexcept;
    void settle(std::unique_ptr<RemovalWalk> walk);
    void updateRoom();

    const PinnedEntry &entry_;
    const DescriptorGrant grant_;
    const std::size_t threads_;
    std::uint64_t device_ = 0; ///< of the file system that holds the entry's folder

    const ItemRemover::CancellationTest &isCancelled_;
    const std::thread::id asking_ = std::this_thread::get_id();
    std::size_t untilAsked_; ///< entries; for the asking thread alone
    std::atomic<bool> isStopped_ = false;

    std::atomic<int> room_ = 0; ///< walks that would find a thread at once
    mutable std::mutex mutex_;  ///< guards what follows
    std::condition_variable changed_;
    std::vector<std::unique_ptr<RemovalWalk>> ready_; ///< room for all is reserved
    std::size_t walks_ = 0;                           ///< that are not done
    std::size_t idle_ = 0;                            ///< threads
    FirstFailure failure_;
    std::vector<std::jthread> helpers_; ///< the last member: they end before the rest does
};

} // namespace klarbox
