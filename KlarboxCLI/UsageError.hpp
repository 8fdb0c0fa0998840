#pragma once

#include <stdexcept>

namespace klarbox {

/// Wrong usage, in one line that says what and where. Nothing was touched; the application prints
/// it and exits with `ExitCode::usage`, as for `InputError`.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace klarbox
