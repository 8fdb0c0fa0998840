#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Operations on text. Input is bytes that should be UTF-8; bytes that are not never make any of
/// these fail. Pure functions, safe from any thread.
namespace klarbox::Text {

/// Normalised to NFC and lower-cased, for comparison without regard to letter case. Text that is
/// not UTF-8 has its ASCII letters lower-cased and every other byte kept, so that different names
/// stay different.
std::string lowercased(std::string_view text);

/// `lowercased` and case-folded in full, without the characters that nobody sees: equal for all
/// names that a file system blind to letter case could take for one ("ſ" and "s", "ß" and "SS",
/// "ς" and "Σ"). For telling what to keep hands off, where more that is equal harms nobody.
std::string caseFolded(std::string_view text);

/// The components of a path, split at "/", empty ones dropped, each `lowercased`: what two paths
/// are compared by wherever letter case does not count.
std::vector<std::string> foldedPathComponents(std::string_view path);

/// An absolute path of these components, for looking it up: equal for two paths exactly when their
/// components are.
std::string foldedPath(std::string_view path);

/// How many characters (as people count them) `text` has when each is a lower-case letter; nothing
/// when any is not.
std::optional<std::size_t> lowercaseLetters(std::string_view text);

bool isValidUTF8(std::string_view bytes);

/// The text with every invalid sequence (maximal subpart) replaced by U+FFFD.
std::string repairedUTF8(std::string_view bytes);

/// The lines between newline characters (LF, VT, FF, CR, U+0085, U+2028, U+2029), empty ones
/// dropped. The views point into `text`.
std::vector<std::string_view> lines(std::string_view text);

/// Without white space (Unicode) at both ends.
std::string_view trimmed(std::string_view text);

/// Safe to show: control, formatting and line-breaking characters written as escapes (`\n`, `\x1b`,
/// `\u202e`), so that a file name can neither move the cursor nor forge a line, and each byte that
/// is no UTF-8 as `\xff`, so that names which differ in such bytes do not look alike. A backslash
/// stays one: people know their files by the names that they have, and what is visible already does
/// not change. So a name that spells an escape out looks like one that has what it stands for.
std::string visible(std::string_view text);

/// `visible` with every backslash doubled, so that no two texts are ever shown alike: for records
/// that must tell afterwards which file was meant, whoever chose its name.
std::string escaped(std::string_view text);

/// Columns that `text` (already `visible`) takes on a terminal.
std::size_t displayWidth(std::string_view text);

/// `text` (already `visible`) cut to at most `width` columns; when something had to go, "…" stands
/// in the middle, so that both ends of a path stay readable.
std::string middleTruncated(std::string_view text, std::size_t width);

} // namespace klarbox::Text
