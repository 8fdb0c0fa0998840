#include "KlarboxKit/Foundation/JSON.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Every level takes a hundred times the one byte that it is written with, and no document of ours
/// has ten of them.
constexpr int maximumDepth = 256;

/// The library quotes what it read last, be it megabytes.
std::string excerpt(std::string_view what) {
    return Text::middleTruncated(Text::visible(what), 200);
}

} // namespace

ParsedJSON parseJSON(std::string_view bytes) {
    const auto limitDepth = [](int depth, ParsedJSON::parse_event_t, ParsedJSON &) {
        if (depth > maximumDepth) {
            throw PlatformError::cocoa(
                PlatformError::coderReadCorrupt,
                fmt::format("not valid JSON: nested more than {} deep", maximumDepth));
        }
        return true;
    };
    try {
        return ParsedJSON::parse(bytes, limitDepth);
    } catch (const ParsedJSON::exception &error) {
        // The library's text begins with its own error number in brackets, which helps nobody.
        std::string_view what = error.what();
        if (const auto end = what.find("] "); end != std::string_view::npos) {
            what.remove_prefix(end + 2);
        }
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   "not valid JSON: " + excerpt(what));
    }
}

std::string encodeJSON(const JSON &value, int indent) {
    return value.dump(indent, ' ', false, JSON::error_handler_t::replace);
}

const ParsedJSON &requiredMember(const ParsedJSON &record, std::string_view key) {
    const auto found = record.find(key);
    if (found == record.end()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("the key \"{}\" is missing", key));
    }
    return *found;
}

std::int64_t requiredInteger(const ParsedJSON &record, std::string_view key) {
    const auto &number = requiredMember(record, key);
    const bool fits = number.is_number_integer() &&
                      (!number.is_number_unsigned() || number.get<std::uint64_t>() <= INT64_MAX);
    if (!fits) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("\"{}\" must be a whole number", key));
    }
    return number.get<std::int64_t>();
}

const std::string &requiredString(const ParsedJSON &record, std::string_view key) {
    const auto &text = requiredMember(record, key);
    if (!text.is_string()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("\"{}\" must be a text", key));
    }
    return text.get_ref<const std::string &>();
}

} // namespace klarbox
