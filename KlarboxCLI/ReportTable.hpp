#pragma once

#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxKit/Model/CleanReport.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"

#include <string>
#include <vector>

namespace klarbox {

/// What came of a clean, for people: one row for each outcome, with the reason where it failed, and
/// what was freed, moved and left in all. `items` are those that were to be cleaned; the outcomes
/// are those of the first of them. Lines fit the style's width.
std::string reportTable(const std::vector<KlarboxItem> &items, const CleanReport &report,
                        const OutputStyle &style);

} // namespace klarbox
