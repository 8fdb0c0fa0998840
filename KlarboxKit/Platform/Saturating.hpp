#pragma once

#include <cstdint>
#include <limits>

namespace klarbox {

/// The sum of two byte counts, or the largest there is when they have no room: sizes come from
/// tools' texts too, and absurd ones must not wrap around.
constexpr std::int64_t saturatingSum(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return a > 0 ? std::numeric_limits<std::int64_t>::max()
                     : std::numeric_limits<std::int64_t>::min();
    }
    return sum;
}

} // namespace klarbox
