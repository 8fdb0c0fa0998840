#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

/// What Homebrew says, for whoever asks what it would do and for whoever had it done. Pure
/// functions.
namespace klarbox::HomebrewOutput {

/// The bytes that it would free or has freed; nothing when it says none.
std::optional<std::int64_t> parseKlarboxEstimate(std::string_view output);

/// The folders of old versions that it could not remove, in its order.
std::vector<FileURL> unremovableKegs(std::string_view output);

} // namespace klarbox::HomebrewOutput
