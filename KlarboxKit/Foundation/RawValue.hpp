#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <stdexcept>

namespace klarbox {

/// One row of an enumeration's table of raw values.
template <typename E, typename Raw>
struct RawCase {
    E value;
    Raw raw;
};
// Compilers before P1816 do not deduce an aggregate's arguments by themselves.
template <typename E, typename Raw>
RawCase(E, Raw) -> RawCase<E, Raw>;

/// Specialised for every enumeration with raw values: `table` is an array of `RawCase` in
/// declaration order. Raw value, construction and the list of all cases derive from it.
template <typename E>
struct RawValues;

/// The raw value of a case.
template <typename E>
constexpr auto rawValue(E value) {
    for (const auto &row : RawValues<E>::table) {
        if (row.value == value) {
            return row.raw;
        }
    }
    throw std::logic_error("enumeration value without a raw value");
}

/// The case with exactly this raw value; nothing when there is none.
template <typename E, typename Raw>
constexpr std::optional<E> fromRawValue(const Raw &raw) {
    for (const auto &row : RawValues<E>::table) {
        if (row.raw == raw) {
            return row.value;
        }
    }
    return std::nullopt;
}

/// Every case, in declaration order.
template <typename E>
constexpr auto allCases() {
    std::array<E, RawValues<E>::table.size()> cases{};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        cases[i] = RawValues<E>::table[i].value;
    }
    return cases;
}

} // namespace klarbox
