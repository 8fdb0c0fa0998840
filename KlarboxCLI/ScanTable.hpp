#pragma once

#include "KlarboxApp/Clean/CleanObstacles.hpp"
#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxKit/Model/CategoryScan.hpp"

#include <string>
#include <vector>

namespace klarbox {

/// How a table of findings is written.
struct ScanTableOptions {
    OutputStyle style = {};
    /// Whether each item has a number (from 1, in the order of `numberedItems`) to choose it by.
    bool numbered = false;
    /// Whether only chosen items are left: all are marked, and an empty category says nothing of
    /// what is there.
    bool isSelection = false;
    /// Of what cannot be cleaned here, and so does not start out selected; null for none.
    const CleanObstacles *obstacles = nullptr;
    /// What to know about the whole scan, a paragraph each, at the end.
    std::vector<std::string> remarks = {};
};

/// What a scan found, for people: categories under their sections, items largest first, each with
/// whether a clean takes it unless told otherwise, its size, tier, name and location, its note
/// below; issues; and what was found and selected in all (not of a selection). Lines fit the
/// style's width.
std::string scanTable(const std::vector<CategoryScan> &scans, const ScanTableOptions &options);

/// The items in the order in which the table shows them.
std::vector<const KlarboxItem *> numberedItems(const std::vector<CategoryScan> &scans);

} // namespace klarbox
