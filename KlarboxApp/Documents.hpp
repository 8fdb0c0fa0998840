#pragma once

#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Model/CleanReport.hpp"

#include <vector>

namespace klarbox {

/// What a scan found, for other programs.
JSON scanDocument(const std::vector<CategoryScan> &scans);

/// What became of a selection, likewise.
JSON cleanDocument(const CleanReport &report);

} // namespace klarbox
