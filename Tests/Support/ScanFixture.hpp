#pragma once

#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace klarbox::test {

/// The moment at which the scans of tests take place.
inline constexpr Date scanTime =
    std::chrono::sys_days(std::chrono::year(2026) / 11 / 22) + std::chrono::hours(12);

/// `days` whole days before `scanTime`.
inline Date daysAgo(int days) {
    return scanTime - std::chrono::days(days);
}

/// Answers commands from a recorded conversation (by their display string) and keeps what it was
/// asked. A command that was not recorded cannot be started, as a missing tool.
class RecordedRunner final : public CommandRunning {
public:
    explicit RecordedRunner(std::map<std::string, CommandResult> answers = {})
        : answers_(std::move(answers)) {}

    CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout,
                      std::stop_token stop = {}) const override;

    struct Call {
        CommandAction action;
        std::chrono::nanoseconds timeout;
    };
    /// What was asked so far, in order.
    std::vector<Call> calls() const;

private:
    std::map<std::string, CommandResult> answers_;
    mutable std::mutex mutex_;
    mutable std::vector<Call> calls_;
};

/// A context in which nothing runs, nothing is installed, every file counts (minimum size 0), Full
/// Disk Access is granted, the time is `scanTime`, and the settings are empty with 30 stale days.
ScanContext scanContext(const FileURL &home);

} // namespace klarbox::test
