#pragma once

#include "KlarboxApp/Clean/CleanObstacles.hpp"
#include "KlarboxKit/Commands/CommandAction.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"
#include "KlarboxKit/Model/RemovalMode.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace klarbox {

/// What is about to happen to a selection, for a person to agree to.
struct CleanPlan {
    std::vector<KlarboxItem> items; ///< in the order in which they are cleaned
    RemovalMode mode;

    // Of the items that can be expected to go; what has an obstacle is tried and promises nothing.
    std::int64_t bytes = 0;
    std::size_t trashed = 0;
    std::size_t permanent = 0;
    std::size_t irreplaceable = 0; ///< go at once, by a command too, and are not made anew
    std::size_t ofTheSystem = 0;
    std::vector<CommandAction> commands;

    /// Looks at the file system for obstacles.
    CleanPlan(std::vector<KlarboxItem> selection, RemovalMode removalMode,
              const CleanObstacles &obstacles);
};

} // namespace klarbox
