#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"

#include "Tests/Support/Programs.hpp"

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using TimedOut = TimeLimitedPrivilegedRemover::TimedOut;

const auto request = PrivilegedRequest::removeItem("/Library/Caches/x");
const PrivilegedRemovalResult removedOne{.removedCount = 1, .bytes = 4096};

/// Answers with whatever a function makes of the request's number (0, 1, …).
struct ScriptedRemover final : PrivilegedRemoving {
    std::function<PrivilegedRemovalResult(int)> answer;
    mutable std::atomic<int> calls = 0;
    mutable std::atomic<bool> wasStopped = false;

    PrivilegedRemovalResult perform(const PrivilegedRequest &) const override {
        return answer(calls++);
    }
    PrivilegedRemovalResult perform(const PrivilegedRequest &each,
                                    std::stop_token stop) const override {
        const std::stop_callback note(stop, [&] { wasStopped = true; });
        return perform(each);
    }
};

std::shared_ptr<ScriptedRemover> scripted(std::function<PrivilegedRemovalResult(int)> answer) {
    const auto remover = std::make_shared<ScriptedRemover>();
    remover->answer = std::move(answer);
    return remover;
}

/// What `perform` throws, as text; "no error" when it answers.
std::string failure(const PrivilegedRemoving &remover) {
    try {
        remover.perform(request);
        return "no error";
    } catch (const std::exception &error) {
        return error.what();
    }
}

TEST(TimeLimitedPrivilegedRemover, passesAnswersOnAndStaysReachable) {
    const auto refused = PrivilegedRemovalResult::refused(SafetyViolation::isRoot);
    // The longest limit lies beyond the clock's range.
    for (const auto limit : {std::chrono::nanoseconds(1h), std::chrono::nanoseconds::max()}) {
        const TimeLimitedPrivilegedRemover remover(scripted([&](int call) {
                                                       std::this_thread::sleep_for(10ms);
                                                       return call == 0 ? refused : removedOne;
                                                   }),
                                                   limit);
        EXPECT_EQ(remover.perform(request), refused);
        EXPECT_EQ(remover.perform(request), removedOne);
    }
}

TEST(TimeLimitedPrivilegedRemover, waitsOnASilentBaseOnlyOnce) {
    std::promise<void> release;
    std::weak_ptr<ScriptedRemover> alive;
    {
        const auto base = scripted([released = release.get_future().share()](int) {
            released.wait();
            return removedOne;
        });
        alive = base;
        const TimeLimitedPrivilegedRemover remover(base, 50ms);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_THROW(remover.perform(request), TimedOut);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
        EXPECT_TRUE(eventually([&] { return base->wasStopped.load(); }));
        EXPECT_THROW(remover.perform(request), TimedOut);
        EXPECT_EQ(base->calls, 1);
    }
    // Wrapper and caller are gone, the request still runs: what it uses must be there.
    ASSERT_FALSE(alive.expired());
    release.set_value();
    EXPECT_TRUE(eventually([&] { return alive.expired(); }));
}

TEST(TimeLimitedPrivilegedRemover, describesTheLimitInWholeSeconds) {
    EXPECT_STREQ(TimedOut(2999ms).what(),
                 "The Klarbox helper didn't answer within 2 seconds. Turn it off and on again in "
                 "Settings, then try again.");
}

TEST(TimeLimitedPrivilegedRemover, requestsInFlightRunToTheirOwnEndAndTheLastFailureIsKept) {
    std::promise<void> secondRuns;
    std::promise<void> firstFailed;
    const auto base = scripted([&](int call) -> PrivilegedRemovalResult {
        if (call == 0) {
            secondRuns.get_future().wait();
            throw std::runtime_error("first");
        }
        secondRuns.set_value();
        firstFailed.get_future().wait();
        throw std::runtime_error("second");
    });
    const TimeLimitedPrivilegedRemover remover(base, 1h);
    auto first = std::async(std::launch::async, [&] { return failure(remover); });
    EXPECT_TRUE(eventually([&] { return base->calls == 1; }));
    auto second = std::async(std::launch::async, [&] { return failure(remover); });
    EXPECT_EQ(first.get(), "first");
    EXPECT_EQ(failure(remover), "first");
    firstFailed.set_value();
    EXPECT_EQ(second.get(), "second");
    EXPECT_EQ(failure(remover), "second");
    EXPECT_EQ(base->calls, 2);
}

} // namespace
} // namespace klarbox::test
