#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// A program started as a child of this process, its standard output and error read through one
/// pipe. One thread at a time may use an object; different objects are independent.
///
/// The child gets an empty standard input, none of this process's other descriptors, default signal
/// dispositions, and a session of its own: it cannot ask for a password on the terminal behind a
/// program that draws there, and Ctrl-C ends this process's wait, not the child half-way through
/// its work.
class ChildProcess {
public:
    /// Output kept at most, in bytes; of a child that writes more, the oldest part is dropped, so
    /// that one that never stops writing cannot take all memory.
    static constexpr std::size_t outputLimit = std::size_t{256} << 20;

    /// Starts the executable, unless a stop was requested already. One that is requested later asks
    /// the child to terminate and ends every wait: on the thread that requests it, so that the
    /// child is told even if this process ends right then. Throws `PlatformError` (POSIX domain)
    /// naming the executable when it cannot be started, and `std::bad_alloc` before there is a
    /// child.
    ChildProcess(const FileURL &executable, const std::vector<std::string> &arguments,
                 const std::map<std::string, std::string> &environment, std::stop_token stop = {});

    /// Never waits. What is left of the child (the child itself, or others that it gave its output
    /// to) goes on undisturbed: its output is drained and its exit collected in the background.
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    /// Blocks until the child has ended and its output was read to the end, until `timeout` has
    /// passed, or until a stop is requested. Returns the child's termination status when it has
    /// ended (what others still hold of its output is not waited for past the limit), else nothing.
    /// May be called again.
    ///
    /// The status is the exit status, or the number of the signal that ended the child, which is
    /// never 0 either. Nothing is thrown.
    std::optional<int> wait(std::chrono::nanoseconds timeout);

    /// What was read so far, as it came; "Out of memory" when there was no room for it.
    const std::string &output() const { return output_; }

    /// Asks the child to terminate (SIGTERM), the first time; without effect once it has ended.
    void terminate();

private:
    class Starting;

    void start(const FileURL &executable, const std::vector<std::string> &arguments,
               const std::map<std::string, std::string> &environment);
    void stop();
    void collectStatus();
    void keep(std::string_view piece);
    bool readSome();

    std::stop_token stop_;
    UniqueFD process_; ///< becomes readable when the child ends; none when there never was one
    UniqueFD pipe_;    ///< none once the output has ended
    UniqueFD stopped_; ///< becomes readable when a stop is requested
    std::optional<int> status_;
    std::string output_;
    bool isOutputLost_ = false;
    std::atomic<bool> isAskedToTerminate_ = false;
    std::mutex mutex_; ///< for the next two
    std::condition_variable started_;
    bool isStarting_ = false;
    std::optional<std::stop_callback<std::function<void()>>> onStop_; ///< ends before all others
};

} // namespace klarbox
