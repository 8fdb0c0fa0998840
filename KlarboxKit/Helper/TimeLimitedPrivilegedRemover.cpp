#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"

#include <condition_variable>
#include <optional>
#include <stop_token>
#include <thread>
#include <utility>
#include <variant>

#include <fmt/format.h>

namespace klarbox {

namespace {

using Outcome = std::variant<PrivilegedRemovalResult, std::exception_ptr>;

/// Where the answer and the time limit of one request meet: the first outcome counts, the rest is
/// dropped.
class FirstResult {
public:
    /// True when this outcome is the one that counts.
    bool finish(Outcome outcome) {
        {
            const std::lock_guard lock(mutex_);
            if (outcome_) {
                return false;
            }
            outcome_ = std::move(outcome);
        }
        finished_.notify_all();
        return true;
    }

    /// Blocks until there is an outcome, or until the deadline; true when there is one.
    bool wait(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return finished_.wait_until(lock, deadline, [&] { return outcome_.has_value(); });
    }

    /// The outcome that counts; there must be one.
    Outcome take() {
        const std::lock_guard lock(mutex_);
        return *outcome_;
    }

private:
    std::mutex mutex_;
    std::condition_variable finished_;
    std::optional<Outcome> outcome_;
};

/// `limit` from now, or the end of time when it lies beyond.
std::chrono::steady_clock::time_point deadline(std::chrono::nanoseconds limit) {
    using Clock = std::chrono::steady_clock;
    const auto now = Clock::now();
    return limit > Clock::time_point::max() - now ? Clock::time_point::max() : now + limit;
}

Outcome race(std::shared_ptr<const PrivilegedRemoving> base, const PrivilegedRequest &request,
             std::chrono::nanoseconds timeout) {
    const auto first = std::make_shared<FirstResult>();
    const auto end = deadline(timeout);
    std::stop_source work;
    std::thread([first, base = std::move(base), request, stop = work.get_token()] {
        Outcome outcome;
        try {
            outcome = base->perform(request, stop);
        } catch (...) {
            outcome = std::current_exception();
        }
        first->finish(std::move(outcome));
    }).detach();
    // An answer that comes in this very moment may still be the first.
    if (!first->wait(end) &&
        first->finish(std::make_exception_ptr(TimeLimitedPrivilegedRemover::TimedOut(timeout)))) {
        work.request_stop();
    }
    return first->take();
}

} // namespace

TimeLimitedPrivilegedRemover::TimedOut::TimedOut(std::chrono::nanoseconds timeout)
    : timeout_(timeout),
      message_(fmt::format("The Klarbox helper didn't answer within {} seconds. Turn it off and on "
                           "again in Settings, then try again.",
                           std::chrono::duration_cast<std::chrono::seconds>(timeout).count())) {}

TimeLimitedPrivilegedRemover::TimeLimitedPrivilegedRemover(
    std::shared_ptr<const PrivilegedRemoving> base, std::chrono::nanoseconds timeout)
    : base_(std::move(base)),
      timeout_(timeout) {}

PrivilegedRemovalResult
TimeLimitedPrivilegedRemover::perform(const PrivilegedRequest &request) const {
    {
        const std::lock_guard lock(mutex_);
        if (unreachable_) {
            std::rethrow_exception(unreachable_);
        }
    }
    try {
        return std::visit(overloaded{
                              [](PrivilegedRemovalResult result) { return result; },
                              [](const std::exception_ptr &error) -> PrivilegedRemovalResult {
                                  std::rethrow_exception(error);
                              },
                          },
                          race(base_, request, timeout_));
    } catch (...) {
        const std::lock_guard lock(mutex_);
        unreachable_ = std::current_exception();
        throw;
    }
}

} // namespace klarbox
