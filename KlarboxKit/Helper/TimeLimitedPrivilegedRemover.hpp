#pragma once

#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

namespace klarbox {

/// Gives every request to a remover that may never answer a time limit, and stops asking once one
/// request has ended in an error: every later one fails at once with that error, so that a dead
/// helper costs one time limit, not one per item. A new attempt needs a new wrapper. A request that
/// ran out of time is asked to stop.
///
/// Safe from any thread; several requests may be under way at once. The wrapper may be destroyed
/// while the base still works on a request that ran out of time: each request runs on a thread of
/// its own, which shares the ownership of all it uses.
class TimeLimitedPrivilegedRemover final : public PrivilegedRemoving {
public:
    /// Thrown when the limit passes before the base has answered.
    class TimedOut : public std::exception {
    public:
        explicit TimedOut(std::chrono::nanoseconds timeout);
        /// The limit that was exceeded.
        std::chrono::nanoseconds timeout() const { return timeout_; }
        const char *what() const noexcept override { return message_.c_str(); }

    private:
        std::chrono::nanoseconds timeout_;
        std::string message_;
    };

    TimeLimitedPrivilegedRemover(std::shared_ptr<const PrivilegedRemoving> base,
                                 std::chrono::nanoseconds timeout);

    /// Throws `TimedOut`, what the base throws, or the error that an earlier request ended with.
    PrivilegedRemovalResult perform(const PrivilegedRequest &request) const override;

private:
    std::shared_ptr<const PrivilegedRemoving> base_;
    std::chrono::nanoseconds timeout_;
    mutable std::mutex mutex_;
    mutable std::exception_ptr unreachable_; ///< guarded by `mutex_`; once set never cleared
};

} // namespace klarbox
