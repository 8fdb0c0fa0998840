#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace klarbox {

/// A JSON value to be written, whose objects keep the order in which their keys were set.
using JSON = nlohmann::ordered_json;

/// A JSON value that was read, whose objects are sorted by key: keeping the order of the text would
/// take time by the square of an object's length.
using ParsedJSON = nlohmann::json;

/// Parses one JSON document; of equal keys the last one counts. Throws `PlatformError` saying what
/// is wrong and where, also for values nested more than a few hundred deep.
ParsedJSON parseJSON(std::string_view bytes);

/// Writes the value, compact or indented by `indent` spaces. Strings that are not UTF-8 have the
/// offending bytes replaced by U+FFFD.
std::string encodeJSON(const JSON &value, int indent = -1);

/// The member of an object; its value as a whole number that fits 64 bits, or as a text. All throw
/// a `PlatformError` that names the key when it is missing or of the wrong type.
const ParsedJSON &requiredMember(const ParsedJSON &record, std::string_view key);
std::int64_t requiredInteger(const ParsedJSON &record, std::string_view key);
const std::string &requiredString(const ParsedJSON &record, std::string_view key);

} // namespace klarbox
