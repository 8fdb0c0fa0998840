#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using TimedOut = TimeLimitedPrivilegedRemover::TimedOut;

const auto request = PrivilegedRequest::removeItem("/Library/Caches/x");
const PrivilegedRemovalResult removedOne{.removedCount = 1, .bytes = 4096};

/// Answers with whatever a function makes of the request's number (0, 1, …).
class ScriptedRemover final : public PrivilegedRemoving {
public:
    explicit ScriptedRemover(std::function<PrivilegedRemovalResult(int)> answer)
        : answer_(std::move(answer)) {}

    PrivilegedRemovalResult perform(const PrivilegedRequest &) const override {
        return answer_(calls_++);
    }
    int calls() const { return calls_; }

private:
    std::function<PrivilegedRemovalResult(int)> answer_;
    mutable std::atomic<int> calls_ = 0;
};

std::shared_ptr<ScriptedRemover> scripted(std::function<PrivilegedRemovalResult(int)> answer) {
    return std::make_shared<ScriptedRemover>(std::move(answer));
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
    const auto base = scripted([](int call) {
        std::this_thread::sleep_for(10ms);
        return call == 0 ? PrivilegedRemovalResult::refused(SafetyViolation::isRoot) : removedOne;
    });
    const TimeLimitedPrivilegedRemover remover(base, 1h);
    EXPECT_EQ(remover.perform(request), PrivilegedRemovalResult::refused(SafetyViolation::isRoot));
    EXPECT_EQ(remover.perform(request), removedOne);
}

TEST(TimeLimitedPrivilegedRemover, acceptsALimitBeyondTheClock) {
    const TimeLimitedPrivilegedRemover remover(scripted([](int) { return removedOne; }),
                                               std::chrono::nanoseconds::max());
    EXPECT_EQ(remover.perform(request), removedOne);
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
        EXPECT_THROW(remover.perform(request), TimedOut);
        EXPECT_EQ(base->calls(), 1);
    }
    // Wrapper and caller are gone, the request still runs: what it uses must be there.
    ASSERT_FALSE(alive.expired());
    release.set_value();
    while (!alive.expired()) {
        std::this_thread::sleep_for(1ms);
    }
}

TEST(TimeLimitedPrivilegedRemover, remembersTheErrorOfTheBase) {
    const auto base =
        scripted([](int) -> PrivilegedRemovalResult { throw PlatformError::posix(ECONNREFUSED); });
    const TimeLimitedPrivilegedRemover remover(base, 1h);
    EXPECT_THROW(remover.perform(request), PlatformError);
    EXPECT_THROW(remover.perform(request), PlatformError);
    EXPECT_EQ(base->calls(), 1);
}

TEST(TimeLimitedPrivilegedRemover, passesOnWhatIsNoStandardException) {
    const TimeLimitedPrivilegedRemover remover(
        scripted([](int) -> PrivilegedRemovalResult { throw 7; }), 1h);
    EXPECT_THROW(remover.perform(request), int);
}

TEST(TimeLimitedPrivilegedRemover, describesTheLimitInWholeSeconds) {
    const struct {
        std::chrono::nanoseconds limit;
        const char *seconds;
    } cases[] = {{30s, "30"}, {2500ms, "2"}, {999ms, "0"}};
    for (const auto &[limit, seconds] : cases) {
        EXPECT_EQ(std::string(TimedOut(limit).what()),
                  std::string("The Klarbox helper didn't answer within ") + seconds +
                      " seconds. Turn it off and on again in Settings, then try again.");
        EXPECT_EQ(TimedOut(limit).timeout(), limit);
    }
}

TEST(TimeLimitedPrivilegedRemover, requestsInFlightRunToTheirOwnEndAndTheLastFailureIsKept) {
    std::promise<void> bothRunning;
    std::promise<void> firstFailed;
    const auto failedFirst = firstFailed.get_future().share();
    const auto base = scripted([&bothRunning, both = bothRunning.get_future().share(),
                                failedFirst](int call) -> PrivilegedRemovalResult {
        if (call == 0) {
            both.wait();
            throw std::runtime_error("first");
        }
        bothRunning.set_value();
        failedFirst.wait();
        throw std::runtime_error("second");
    });
    const TimeLimitedPrivilegedRemover remover(base, 1h);
    auto first = std::async(std::launch::async, [&] { return failure(remover); });
    while (base->calls() == 0) {
        std::this_thread::yield();
    }
    auto second = std::async(std::launch::async, [&] { return failure(remover); });
    EXPECT_EQ(first.get(), "first");
    EXPECT_EQ(failure(remover), "first");
    firstFailed.set_value();
    EXPECT_EQ(second.get(), "second");
    EXPECT_EQ(failure(remover), "second");
    EXPECT_EQ(base->calls(), 2);
}

TEST(TimeLimitedPrivilegedRemover, deliversExactlyOneOutcomeWhenAnswerAndLimitMeet) {
    std::vector<std::jthread> callers;
    std::atomic<int> outcomes = 0;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&outcomes] {
            for (int round = 0; round < 25; ++round) {
                const TimeLimitedPrivilegedRemover remover(scripted([](int) {
                                                               std::this_thread::sleep_for(1ms);
                                                               return removedOne;
                                                           }),
                                                           1ms);
                try {
                    outcomes += remover.perform(request) == removedOne ? 1 : 1000;
                } catch (const TimedOut &) {
                    outcomes += 1;
                }
            }
        });
    }
    callers.clear();
    EXPECT_EQ(outcomes, 100);
}

} // namespace
} // namespace klarbox::test
