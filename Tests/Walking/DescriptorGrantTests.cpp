#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"
#include "KlarboxKit/Walking/DescriptorGrant.hpp"

#include "Tests/Support/HardTrees.hpp"
#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/Sanitizers.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;

std::size_t openDescriptors() {
    std::error_code none; // left, which is as many as there can be
    const std::filesystem::directory_iterator all("/proc/self/fd", none);
    return none ? SIZE_MAX : static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

void inThreads(int count, const std::function<void(int)> &body) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < count; ++thread) {
        threads.emplace_back([&body, thread] { body(thread); });
    }
}

TEST(DescriptorGrant, allHoldersTogetherMayOpenHalfOfWhatTheProcessMay) {
    const std::pair<unsigned, std::size_t> cases[] = {{64, 32}, {700, 350}, {4096, 512}};
    for (const auto &[limit, half] : cases) {
        inIsolatedProcess([limit = limit, half = half] {
            limitDescriptors(limit);
            std::mutex mutex;
            std::size_t held = 0;
            std::size_t peak = 0;
            inThreads(60, [&](int) {
                for (int round = 0; round < 8; ++round) {
                    const auto grant = DescriptorGrant::wait();
                    EXPECT_GE(grant.descriptors(), DescriptorGrant::fewest);
                    {
                        const std::lock_guard lock(mutex);
                        held += grant.descriptors();
                        peak = std::max(peak, held);
                    }
                    std::this_thread::sleep_for(isSanitized ? 20ms : 1ms);
                    const std::lock_guard lock(mutex);
                    held -= grant.descriptors(); // before the place is another's
                }
            });
            EXPECT_LE(peak, half) << limit;
            EXPECT_GT(peak, half / 2) << limit;
            // Whoever can be done without leaves half of the places to others.
            std::vector<DescriptorGrant> spare;
            while (auto grant = DescriptorGrant::ifAmple()) {
                spare.push_back(*std::move(grant));
            }
            EXPECT_LE(spare.size() * spare.at(0).descriptors(), half / 2 + half / 4) << limit;
        });
    }
}

TEST(DescriptorGrant, walksKeepWithinTheirs) {
    constexpr int callers = 12;
    const TemporaryTree tree(TemporaryTree::Medium::memoryIfPossible, {});
    for (int caller = 0; caller < callers; ++caller) {
        tree.add({std::to_string(caller), directory()});
        makeChain(tree / std::to_string(caller), 200, "d", 2);
    }
    inIsolatedProcess([&] {
        limitDescriptors(64);
        const auto before = openDescriptors();
        const auto peakOf = [&](const std::function<void(const FileURL &)> &walk) {
            std::size_t peak = 0;
            std::jthread sampler([&](const std::stop_token &stop) {
                while (!stop.stop_requested()) {
                    peak = std::max(peak, openDescriptors());
                }
            });
            inThreads(callers, [&](int caller) { walk(tree / std::to_string(caller)); });
            sampler = {};
            return peak - before;
        };
        const auto measuring = peakOf([](const FileURL &chain) {
            for (int round = 0; round < 20; ++round) {
                EXPECT_GT(DiskUsage::allocatedSize(chain), 0);
            }
        });
        EXPECT_LE(measuring, 32U);
        EXPECT_GT(measuring, DescriptorGrant::fewest);
        // Whoever removes holds the item's own folder besides.
        const auto removing = peakOf([](const FileURL &chain) {
            EXPECT_NO_THROW(SecureDeleter().deletePermanently(chain));
        });
        EXPECT_LE(removing, 32U + callers);
    });
}

} // namespace
} // namespace klarbox::test
