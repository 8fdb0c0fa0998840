#include "KlarboxKit/Platform/JSON.hpp"

#include "KlarboxKit/Platform/PlatformError.hpp"

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

} // namespace klarbox
