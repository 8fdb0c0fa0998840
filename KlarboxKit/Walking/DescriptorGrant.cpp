#include "KlarboxKit/Walking/DescriptorGrant.hpp"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <sys/resource.h>

namespace klarbox {

namespace {

struct Share {
    std::size_t walkers;     ///< that may hold a grant at once
    std::size_t descriptors; ///< of each
};

/// Asked for anew each time, because the limit can be changed while the process runs.
Share currentShare() {
    constexpr std::size_t most = 512;
    constexpr std::size_t usualWalkers = 32;
    constexpr std::size_t enough = 16; // deeper walks come back to closed folders through ".."
    rlimit limit{};
    std::size_t half = most;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur / 2 < most) {
        half = static_cast<std::size_t>(limit.rlim_cur / 2);
    }
    const auto each = std::clamp(half / usualWalkers, DescriptorGrant::fewest, enough);
    return {std::max<std::size_t>(half / each, 1), each};
}

struct State {
    std::mutex mutex;
    std::condition_variable freed;
    std::size_t held = 0;
    std::size_t waiting = 0;
};

/// Never destroyed: a thread may still be walking when the process exits.
State &state() {
    static auto *const shared = new State;
    return *shared;
}

} // namespace

DescriptorGrant DescriptorGrant::wait() {
    const auto share = currentShare();
    auto &all = state();
    std::unique_lock lock(all.mutex);
    ++all.waiting;
    all.freed.wait(lock, [&] { return all.held < share.walkers; });
    --all.waiting;
    ++all.held;
    return DescriptorGrant(share.descriptors);
}

std::optional<DescriptorGrant> DescriptorGrant::ifAmple() {
    const auto share = currentShare();
    auto &all = state();
    const std::lock_guard lock(all.mutex);
    if (all.waiting > 0 || all.held * 2 >= share.walkers + 1) {
        return std::nullopt;
    }
    ++all.held;
    return DescriptorGrant(share.descriptors);
}

DescriptorGrant::~DescriptorGrant() {
    if (descriptors_ == 0) {
        return;
    }
    auto &all = state();
    const std::lock_guard lock(all.mutex);
    --all.held;
    if (all.waiting > 0) {
        all.freed.notify_one();
    }
}

} // namespace klarbox
