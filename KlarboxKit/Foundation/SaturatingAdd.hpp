#pragma once

#include <cstdint>

namespace klarbox {

/// `a + b`, or the nearest value that 64 bits hold. Byte counts come from tools' texts and from
/// other processes too; absurd ones must not overflow.
constexpr std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    if (b > 0 && a > INT64_MAX - b) {
        return INT64_MAX;
    }
    if (b < 0 && a < INT64_MIN - b) {
        return INT64_MIN;
    }
    return a + b;
}

} // namespace klarbox
