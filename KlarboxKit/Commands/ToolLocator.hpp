#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <optional>
#include <span>
#include <string>
#include <string_view>

/// Finds command-line tools in a fixed list of folders; "PATH" is not consulted.
namespace klarbox::ToolLocator {

/// The first executable file called `name` in the fixed folders and then in `extraLocations`, in
/// order; nothing when there is none.
std::optional<FileURL> find(std::string_view name,
                            std::span<const std::string> extraLocations = {});

} // namespace klarbox::ToolLocator
