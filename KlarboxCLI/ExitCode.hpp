#pragma once

/// What the application's exit codes mean.
namespace klarbox::ExitCode {

inline constexpr int done = 0;
inline constexpr int cleaningFailed = 1; ///< at least one item did not come out clean
inline constexpr int usage = 2;

} // namespace klarbox::ExitCode
