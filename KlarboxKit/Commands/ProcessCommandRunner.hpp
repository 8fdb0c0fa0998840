#pragma once

#include "KlarboxKit/Commands/CommandRunning.hpp"

#include <map>
#include <string>

namespace klarbox {

/// Runs real processes. Stateless; safe from any thread.
class ProcessCommandRunner final : public CommandRunning {
public:
    CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout,
                      std::stop_token stop = {}) const override;

    /// The environment of every tool: this process's own, with the usual tool folders first in
    /// "PATH" and Homebrew's automatic update and hints turned off.
    static std::map<std::string, std::string> environment();
};

} // namespace klarbox
