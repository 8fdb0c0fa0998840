#pragma once

#include <stdexcept>

namespace klarbox {

/// Wrong usage or unreadable input, in one line that says what and where. Nothing was touched; the
/// application prints it and exits with `ExitCode::usage`.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the application's exit codes mean.
namespace ExitCode {
inline constexpr int done = 0;
inline constexpr int cleaningFailed = 1; ///< at least one item did not come out clean
inline constexpr int usage = 2;
} // namespace ExitCode

} // namespace klarbox
