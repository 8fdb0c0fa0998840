#include "KlarboxKit/Foundation/Date.hpp"

#include <algorithm>

namespace klarbox {

Date dateAt(std::int64_t seconds, std::int64_t nanoseconds) {
    // A second less than half of what the type holds, for the nanoseconds that come on top.
    constexpr std::int64_t furthest =
        std::chrono::duration_cast<std::chrono::seconds>(Date::duration::max()).count() / 2 - 1;
    return Date(
        std::chrono::seconds(std::clamp(seconds, -furthest, furthest)) +
        std::chrono::floor<std::chrono::microseconds>(std::chrono::nanoseconds(nanoseconds)));
}

} // namespace klarbox
