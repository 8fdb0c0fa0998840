#pragma once

#include "KlarboxApp/Clean/CleanObstacles.hpp"
#include "KlarboxKit/Model/CategoryScan.hpp"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace klarbox::Selection {

/// The scans with nothing but the items that are `wanted` or whose identifiers, byte for byte or as
/// they are shown, are listed. Throws `InputError` for an identifier that the scan did not find, or
/// that more than one item shows.
std::vector<CategoryScan> select(std::vector<CategoryScan> scans,
                                 const std::function<bool(const KlarboxItem &)> &wanted,
                                 const std::vector<std::string> &identifiers);

/// What was selected without asking.
struct Choice {
    std::vector<CategoryScan> scans; ///< with nothing but the items
    /// Of those, and of what the default would have taken as well.
    std::map<CleanObstacles::Kind, CleanObstacles::Sum> notCleanable;
};

/// Selects by identifier, and, `byDefault`, what starts out selected and has no obstacle. Throws as
/// `select` does.
Choice choose(std::vector<CategoryScan> scans, bool byDefault,
              const std::vector<std::string> &identifiers, const CleanObstacles &obstacles);

/// All items, in order.
std::vector<KlarboxItem> items(const std::vector<CategoryScan> &scans);

} // namespace klarbox::Selection
