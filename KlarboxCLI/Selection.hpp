#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox::Selection {

/// The scans with nothing but the items that are `wanted` or whose identifiers, byte for byte or as
/// they are shown, are listed. Throws `UsageError` for an identifier that the scan did not find, or
/// that more than one item shows.
std::vector<CategoryScan> select(std::vector<CategoryScan> scans,
                                 const std::function<bool(const KlarboxItem &)> &wanted,
                                 const std::vector<std::string> &identifiers);

/// The scans with nothing but the items whose numbers (of `numberedItems`) are given.
std::vector<CategoryScan> selectNumbers(const std::vector<CategoryScan> &scans,
                                        const std::vector<std::size_t> &numbers);

/// Reads an answer such as "1 3-5, 8", "all", "default" (the numbers in `byDefault`) or "none"
/// about `count` numbered items: the numbers, ascending, each once. An empty answer chooses none;
/// nothing is returned when the answer cannot be understood.
std::optional<std::vector<std::size_t>> parseAnswer(std::string_view answer, std::size_t count,
                                                    const std::vector<std::size_t> &byDefault);

/// All items, in order.
std::vector<KlarboxItem> items(const std::vector<CategoryScan> &scans);

} // namespace klarbox::Selection
