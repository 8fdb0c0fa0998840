#include "KlarboxKit/Model/CategoryScan.hpp"

#include "KlarboxKit/Foundation/SaturatingAdd.hpp"

namespace klarbox {

std::int64_t CategoryScan::totalSize() const {
    std::int64_t total = 0;
    for (const auto &item : items) {
        total = saturatingAdd(total, item.size);
    }
    return total;
}

} // namespace klarbox
