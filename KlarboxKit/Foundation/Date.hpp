#pragma once

#include <chrono>
#include <cstdint>

namespace klarbox {

/// A wall-clock time. Times more than 146,000 years away (some file systems store them) are held as
/// the nearest one within, so that the distance of two dates never overflows.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

/// The date of a time in whole seconds and nanoseconds since 1970.
Date dateAt(std::int64_t seconds, std::int64_t nanoseconds);

} // namespace klarbox
