#pragma once

#include "KlarboxKit/Commands/CommandAction.hpp"

#include <chrono>
#include <cstdint>
#include <stop_token>
#include <string>

namespace klarbox {

/// What running a tool came to.
struct CommandResult {
    static constexpr std::int32_t notStarted = -1;
    static constexpr std::int32_t timedOut = -2;

    std::int32_t exitCode; ///< the tool's exit status, `notStarted` or `timedOut`
    /// Standard output and error, merged in order of arrival, as repaired UTF-8; why the tool could
    /// not be started; or "Timed out".
    std::string output;

    bool operator==(const CommandResult &) const = default;

    bool succeeded() const { return exitCode == 0; }
};

/// Runs outside tools. Every failure is folded into the result; nothing is thrown. Implementations
/// are safe from any thread, several calls at once included.
class CommandRunning {
public:
    virtual ~CommandRunning() = default;

    /// Blocks until the tool has ended or `timeout` has passed. A requested stop ends the wait as
    /// the time limit does.
    virtual CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout,
                              std::stop_token stop = {}) const = 0;
};

} // namespace klarbox
