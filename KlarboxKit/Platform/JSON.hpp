#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace klarbox {

/// A JSON value whose objects keep the order in which their keys were set.
using JSON = nlohmann::ordered_json;

/// Parses one JSON document. Throws `PlatformError` saying what is wrong and where.
JSON parseJSON(std::string_view bytes);

/// Writes the value, compact or indented by `indent` spaces. Strings that are not UTF-8 have the
/// offending bytes replaced by U+FFFD.
std::string encodeJSON(const JSON &value, int indent = -1);

} // namespace klarbox
