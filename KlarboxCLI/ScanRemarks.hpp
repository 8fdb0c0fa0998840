#pragma once

#include "KlarboxApp/Clean/CleanObstacles.hpp"
#include "KlarboxApp/Scan/ScanSession.hpp"

#include <map>
#include <string>
#include <vector>

namespace klarbox {

/// For each obstacle: how many items have it, how large they are, and how to get them cleaned.
std::vector<std::string>
obstacleRemarks(const std::map<CleanObstacles::Kind, CleanObstacles::Sum> &sums);

/// What to know about the findings of a session's scan that they do not say themselves, in
/// paragraphs.
std::vector<std::string> scanRemarks(const ScanSession &session,
                                     const std::vector<CategoryScan> &scans);

} // namespace klarbox
