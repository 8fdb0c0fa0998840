#pragma once

#include "KlarboxKit/Walking/DescriptorGrant.hpp"
#include "KlarboxKit/Walking/FirstFailure.hpp"
#include "KlarboxKit/Walking/WalkedFolder.hpp"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <thread>

namespace klarbox {

/// One walk through trees: what its walkers share. Lives in the frame of the thread that asked for
/// it, its owner, which walks alone until the walk turns out to be long and is helped by the pool's
/// threads from then on. Only the owner asks whether to stop.
class Walk {
public:
    /// Answers whether to stop; empty stands for never.
    using CancellationTest = std::function<bool()>;

    enum class Purpose {
        look,
        /// Each folder is proven to be the very one that was looked at, and is left only when all
        /// of it was walked, by whomever, with the folder above it open.
        change,
    };

    /// How many may walk at once, and how much may be given away and not be done yet.
    struct Limits {
        std::size_t walkers = SIZE_MAX;
        std::size_t parts = SIZE_MAX;
    };

    virtual ~Walk() = default;
    Walk(const Walk &) = delete;
    Walk &operator=(const Walk &) = delete;

    bool changes() const { return purpose_ == Purpose::change; }
    /// The open folder that what was given lies in; AT_FDCWD for absolute paths.
    int givenIn() const { return givenIn_; }
    /// Most descriptors of one walker.
    std::size_t descriptors() const { return grant_.descriptors(); }

    bool isStopped() const { return isStopped_.load(std::memory_order_relaxed); }
    void stop() { isStopped_.store(true, std::memory_order_relaxed); }

    /// Whether this thread is the owner's.
    bool isOwner() const { return std::this_thread::get_id() == owner_; }
    /// For the owner: gets help, of so many threads as long as nothing waits for the disk.
    void getHelp(std::size_t threads);
    /// Whether help was asked for.
    bool isShared() const { return isShared_; }
    /// Whether a walker should give something away; the answer may be a moment old.
    bool wantsShare() const;

protected:
    /// May wait until other walks of this process have closed some descriptors. The test must
    /// outlive the walk.
    Walk(Purpose purpose, int givenIn, Limits limits, const CancellationTest &isCancelled)
        : isCancelled_(isCancelled),
          purpose_(purpose),
          givenIn_(givenIn),
          limits_(limits) {}

    /// Walks what was given to its end, or until it is stopped. Answers what failed of it; throws
    /// what ended it. No other thread uses the walk any more then.
    FirstFailure run(WalkedFolder given);

    const CancellationTest &isCancelled_;

private:
    friend class WalkerPool;

    /// Runs a walker with a visitor of its own, on any thread.
    virtual void advance(Walker &walker) = 0;
    /// Asks whether to stop, if that is due; on the owner's thread, now and then while it waits.
    virtual void ask() = 0;

    const Purpose purpose_;
    const int givenIn_;
    const Limits limits_;
    const DescriptorGrant grant_ = DescriptorGrant::wait();
    const std::thread::id owner_ = std::this_thread::get_id();
    std::atomic<bool> isStopped_ = false;
    bool isShared_ = false; ///< set before others get to know the walk

    // The rest belongs to the pool and is guarded by its lock; what is atomic is also read without
    // it, as a hint.
    std::atomic<bool> ownerIsIdle_ = false;
    std::atomic<std::size_t> unfinished_ = 1; ///< walkers
    std::size_t running_ = 1;                 ///< of those
    FirstFailure failed_;
    std::exception_ptr thrown_;
    std::condition_variable changed_;
};

} // namespace klarbox
