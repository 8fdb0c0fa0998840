#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/// Sizes as tools print them.
namespace klarbox::SizeText {

/// The bytes that a text such as "1.2GB" or "512 kB" stands for, truncated toward zero; `base` is
/// the unit step (1000 or 1024). Nothing when the text is no size, or one beyond 64 bits.
std::optional<std::int64_t> bytes(std::string_view text, double base);

} // namespace klarbox::SizeText
