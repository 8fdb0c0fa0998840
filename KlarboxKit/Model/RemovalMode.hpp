#pragma once

#include "KlarboxKit/Foundation/RawValue.hpp"

#include <string_view>

namespace klarbox {

/// How the person wants selected items removed.
enum class RemovalMode { moveToTrash, deletePermanently };

template <>
struct RawValues<RemovalMode> {
    static constexpr std::array table{
        RawCase{RemovalMode::moveToTrash, std::string_view("moveToTrash")},
        RawCase{RemovalMode::deletePermanently, std::string_view("deletePermanently")},
    };
};

/// Whether the person's `RemovalMode` applies to an item.
enum class RemovalPolicy {
    userChoice,   ///< it does
    permanentOnly ///< always deleted permanently, whatever the mode
};

} // namespace klarbox
