#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Model/CleanReport.hpp"
#include "KlarboxKit/Platform/JSON.hpp"

#include <vector>

namespace klarbox {

/// The document of `scan --json`.
JSON scanDocument(const std::vector<CategoryScan> &scans);

/// The document of `clean --json`.
JSON cleanDocument(const CleanReport &report);

} // namespace klarbox
