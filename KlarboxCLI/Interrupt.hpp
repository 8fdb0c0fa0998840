#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace klarbox {

/// Turns Ctrl-C (and SIGTERM and SIGHUP) into something orderly: a thread of its own waits for the
/// signals, which no other thread receives. Until told otherwise a signal ends the process at once;
/// there is nothing to put in order while only reading.
///
/// One per process, made before any other thread.
class Interrupt {
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt &) = delete;
    Interrupt &operator=(const Interrupt &) = delete;

    /// While it lives, `tidyUp` is called on the watching thread when the first signal comes,
    /// before the process ends or work stops. One at a time.
    class Hook {
    public:
        Hook(Interrupt &interrupt, std::function<void()> tidyUp);
        ~Hook();
        Hook(const Hook &) = delete;
        Hook &operator=(const Hook &) = delete;

        /// From now on `tidyUp` is called instead.
        void replace(std::function<void()> tidyUp);

    private:
        Interrupt &interrupt_;
    };

    /// From now on the first signal only requests a stop; a second one ends the process. Output
    /// that nobody reads any more fails to be written instead of ending the process.
    void finishWorkFirst();

    /// Whether a stop was requested by a signal.
    bool wasRequested() const { return source_.stop_requested(); }

    /// What a process that was stopped so exits with: 130 for Ctrl-C.
    int exitCode() const { return 128 + signal_; }

    /// Stops the work that this token is given to.
    std::stop_token token() const { return source_.get_token(); }

private:
    void watch(const std::stop_token &quit);

    std::stop_source source_;
    std::mutex mutex_;
    std::function<void()> tidyUp_;
    std::atomic<bool> finishesWorkFirst_ = false;
    std::atomic<int> signal_ = 0; ///< the last one
    std::jthread watcher_;
};

} // namespace klarbox
