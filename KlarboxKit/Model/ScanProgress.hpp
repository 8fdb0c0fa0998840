#pragma once

#include "KlarboxKit/Model/CategoryInfo.hpp"

#include <cstdint>
#include <optional>

namespace klarbox {

/// One progress report of the coordinator.
struct ScanProgress {
    std::int64_t completed; ///< categories finished so far
    std::int64_t total;     ///< categories in the scan
    /// The category that just finished; absent in the report made before any has.
    std::optional<CategoryInfo> finished = std::nullopt;

    bool operator==(const ScanProgress &) const = default;
};

} // namespace klarbox
