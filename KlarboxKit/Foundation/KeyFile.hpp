#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace klarbox {

/// The value of `key` in the group called `group` of a text in the key file format (groups of
/// `key=value` lines under `[group]` headings, as desktop entries have them), its escapes resolved.
/// Nothing when the group does not hold the key; of a key that is there twice, the last value, and
/// of lines that are neither, nothing. Pure function, safe from any thread.
std::optional<std::string> keyFileValue(std::string_view text, std::string_view group,
                                        std::string_view key);

} // namespace klarbox
