#include "KlarboxKit/Commands/SizeText.hpp"

#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string>

namespace klarbox {

namespace {

/// Units from 10^0 up, each one step of the base more than the one before it.
constexpr std::array<std::string_view, 5> units{"B", "KB", "MB", "GB", "TB"};

/// A letter outside ASCII ends no number and begins no unit, so it need not be told from other
/// characters that belong in neither.
bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

char uppercased(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// The whole text as a number with a decimal point, whatever the locale.
std::optional<double> number(std::string_view text) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return std::nullopt;
        }
    }
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

} // namespace

std::optional<std::int64_t> SizeText::bytes(std::string_view text, double base) {
    std::string compact(Text::trimmed(text));
    std::erase(compact, ' ');
    const auto letter = std::ranges::find_if(compact, isLetter);
    const auto value = number(std::string_view(compact.begin(), letter));
    if (!value) {
        return std::nullopt;
    }
    std::string unit(letter, compact.end());
    std::ranges::transform(unit, unit.begin(), uppercased);
    const auto known = std::ranges::find(units, unit);
    if (known == units.end()) {
        return std::nullopt;
    }
    const auto bytes = std::trunc(*value * std::pow(base, known - units.begin()));
    // 2^63 as the first number that does not fit: the largest that does has no double of its own.
    constexpr double limit = 9223372036854775808.0;
    if (!(bytes >= -limit && bytes < limit)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(bytes);
}

} // namespace klarbox
