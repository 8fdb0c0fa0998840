#pragma once

#include "KlarboxKit/Safety/SafetyViolation.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace klarbox {

/// The helper's answer to one request.
struct PrivilegedRemovalResult {
    std::int64_t removedCount = 0; ///< items removed
    std::int64_t failedCount = 0;  ///< items that could not be removed, refused ones included
    std::int64_t bytes = 0;        ///< allocated bytes of what was removed, measured just before
    std::optional<SafetyViolation> refusal = std::nullopt; ///< the first refusal met
    std::optional<std::string> error = std::nullopt;       ///< the first failure message met

    static PrivilegedRemovalResult refused(SafetyViolation violation);
    static PrivilegedRemovalResult failed(std::string message);

    /// The JSON object that travels back to the application: "removedCount", "failedCount" and
    /// "bytes", with "refusal" (its raw value) and "error" only when present. Empty when the record
    /// cannot be written.
    std::string encoded() const;

    /// Reads what `encoded` writes. Throws `PlatformError` for anything else.
    static PrivilegedRemovalResult decode(std::string_view json);

    bool operator==(const PrivilegedRemovalResult &) const = default;
};

} // namespace klarbox
