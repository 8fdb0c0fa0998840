#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"

#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// A text that may be missing; null counts as missing.
std::optional<std::string> optionalText(const ParsedJSON &record, std::string_view key) {
    const auto found = record.find(key);
    if (found == record.end() || found->is_null()) {
        return std::nullopt;
    }
    if (!found->is_string()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   fmt::format("\"{}\" must be a text", key));
    }
    return found->get<std::string>();
}

} // namespace

PrivilegedRemovalResult PrivilegedRemovalResult::refused(SafetyViolation violation) {
    return {.failedCount = 1, .refusal = violation};
}

PrivilegedRemovalResult PrivilegedRemovalResult::failed(std::string message) {
    return {.failedCount = 1, .error = std::move(message)};
}

std::string PrivilegedRemovalResult::encoded() const {
    try {
        JSON record;
        record["removedCount"] = removedCount;
        record["failedCount"] = failedCount;
        record["bytes"] = bytes;
        if (refusal) {
            record["refusal"] = rawValue(*refusal);
        }
        if (error) {
            record["error"] = *error;
        }
        return encodeJSON(record);
    } catch (const std::exception &) {
        // A peer must get its one reply whatever happens; it reads an empty one as an error.
        return {};
    }
}

PrivilegedRemovalResult PrivilegedRemovalResult::decode(std::string_view json) {
    const auto record = parseJSON(json);
    if (!record.is_object()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   "the helper's answer must be a JSON object");
    }
    PrivilegedRemovalResult result{.removedCount = requiredInteger(record, "removedCount"),
                                   .failedCount = requiredInteger(record, "failedCount"),
                                   .bytes = requiredInteger(record, "bytes")};
    if (const auto name = optionalText(record, "refusal")) {
        result.refusal = fromRawValue<SafetyViolation>(std::string_view(*name));
        if (!result.refusal) {
            throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                       "\"refusal\" must be the name of a violation");
        }
    }
    result.error = optionalText(record, "error");
    return result;
}

} // namespace klarbox
