#include "KlarboxKit/Model/CategoryScan.hpp"

namespace klarbox {

std::int64_t CategoryScan::totalSize() const {
    std::int64_t total = 0;
    for (const auto &item : items) {
        // Estimates come from tools' texts; absurd ones must not overflow.
        if (__builtin_add_overflow(total, item.size, &total)) {
            return INT64_MAX;
        }
    }
    return total;
}

} // namespace klarbox
