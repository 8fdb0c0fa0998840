#pragma once

#include "KlarboxKit/Model/KlarboxTarget.hpp"
#include "KlarboxKit/Model/RemovalMode.hpp"
#include "KlarboxKit/Model/SafetyTier.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace klarbox {

/// One finding of a scan: a removable thing, its size, and how it may be removed. Texts that come
/// from file names are bytes; whoever shows them makes them safe to show.
struct KlarboxItem {
    std::string id;    ///< unique within one scan, and the same in the next for the same finding
    std::string title; ///< shown name
    std::optional<std::string> detail = std::nullopt; ///< shown with the title, often the location
    KlarboxTarget target;
    /// The folder inside which every removal for this item stays; a file target without one is
    /// refused. Commands need none.
    std::optional<FileURL> allowedRoot = std::nullopt;
    std::int64_t size = 0;       ///< bytes occupied, or expected to be freed
    bool isSizeEstimate = false; ///< whether `size` is the tool's estimate, not a measurement
    SafetyTier tier;
    std::optional<std::string> note = std::nullopt; ///< why it exists, what removing it costs
    /// Whether the item starts out selected; unless said otherwise, when its tier is safe.
    bool isSelectedByDefault = tier == SafetyTier::safe;
    RemovalPolicy removalPolicy = RemovalPolicy::userChoice;
    std::optional<std::string> group = std::nullopt; ///< heading for related items of one category
    bool requiresPrivileges = false; ///< removable only through the privileged helper

    bool operator==(const KlarboxItem &) const = default;
};

} // namespace klarbox
