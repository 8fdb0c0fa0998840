#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Model/CleanReport.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The engine's values in words for people. What comes from the disk is made safe to show.
namespace klarbox::DisplayText {

/// On a terminal with fewer columns than this, rows of a table are broken into several lines.
inline constexpr std::size_t narrowestTable = 64;
/// On one with still fewer, lines wrap; fitting them would leave nothing to read.
inline constexpr std::size_t narrowest = 30;

/// A size in decimal units: "0 B", "812 B", "4.1 kB", "820.1 MB", "1.24 GB".
std::string size(std::int64_t bytes);

/// The item's size, "~" before it when it is an estimate.
std::string size(const KlarboxItem &item);

/// "1 item", "2 items".
std::string count(std::size_t number, std::string_view noun);

std::string_view tier(SafetyTier tier);
std::string_view section(ScanSection section);

/// A full sentence.
std::string issue(const ScanIssue &issue);

/// What became of an item, in a few words: "deleted", "failed: …".
std::string result(const CleanResult &result);

/// Why the guard refused, as the rest of a sentence.
std::string_view violation(SafetyViolation violation);

/// `text` broken at spaces into lines of at most `width` columns (0: one line); a longer word
/// stands alone.
std::vector<std::string> wrapped(std::string_view text, std::size_t width);

/// `text` with spaces after (or before) it up to `width` columns.
std::string leftAligned(std::string_view text, std::size_t width);
std::string rightAligned(std::string_view text, std::size_t width);

} // namespace klarbox::DisplayText
