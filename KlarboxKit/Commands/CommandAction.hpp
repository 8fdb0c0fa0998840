#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <string>
#include <vector>

namespace klarbox {

/// A command-line tool and its arguments, passed one by one without a shell.
struct CommandAction {
    FileURL executable;
    std::vector<std::string> arguments;

    bool operator==(const CommandAction &) const = default;

    /// The command as text for display: the tool's file name and the arguments, joined by spaces.
    std::string displayString() const;
};

} // namespace klarbox
