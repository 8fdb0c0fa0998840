#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

/// Choosing among the findings of a numbered table.
namespace klarbox::NumberedChoice {

/// The scans with nothing but the items whose numbers (of `numberedItems`) are given.
std::vector<CategoryScan> selectNumbers(const std::vector<CategoryScan> &scans,
                                        const std::vector<std::size_t> &numbers);

/// Reads an answer such as "1 3-5, 8", "all", "default" (the numbers in `byDefault`) or "none"
/// about `count` numbered items: the numbers, ascending, each once. An empty answer chooses none;
/// nothing is returned when the answer cannot be understood.
std::optional<std::vector<std::size_t>> parseAnswer(std::string_view answer, std::size_t count,
                                                    const std::vector<std::size_t> &byDefault);

} // namespace klarbox::NumberedChoice
