#include "KlarboxKit/Platform/JSON.hpp"

#include "KlarboxKit/Platform/PlatformError.hpp"

#include <fmt/format.h>

namespace klarbox {

JSON parseJSON(std::string_view bytes) {
    try {
        return JSON::parse(bytes);
    } catch (const JSON::exception &error) {
        // The library's text begins with its own error number in brackets, which helps nobody.
        std::string_view what = error.what();
        if (const auto end = what.find("] "); end != std::string_view::npos) {
            what.remove_prefix(end + 2);
        }
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   "not valid JSON: " + std::string(what));
    }
}

std::string encodeJSON(const JSON &value, int indent) {
    return value.dump(indent, ' ', false, JSON::error_handler_t::replace);
}

const JSON &requiredMember(const JSON &record, std::string_view key) {
    const auto found = record.find(key);
    if (found == record.end()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("the key \"{}\" is missing", key));
    }
    return *found;
}

std::int64_t requiredInteger(const JSON &record, std::string_view key) {
    const auto &number = requiredMember(record, key);
    const bool fits = number.is_number_integer() &&
                      (!number.is_number_unsigned() || number.get<std::uint64_t>() <= INT64_MAX);
    if (!fits) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("\"{}\" must be a whole number", key));
    }
    return number.get<std::int64_t>();
}

const std::string &requiredString(const JSON &record, std::string_view key) {
    const auto &text = requiredMember(record, key);
    if (!text.is_string()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("\"{}\" must be a text", key));
    }
    return text.get_ref<const std::string &>();
}

} // namespace klarbox
