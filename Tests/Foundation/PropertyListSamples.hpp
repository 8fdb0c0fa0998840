#pragma once

#include "KlarboxKit/Foundation/PropertyList.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

/// Property lists written by hand, and how a list that was read is compared with them.
namespace klarbox::test {

/// The list on one line, everything in the order of the file: {"key": value, …}, [1, 1.5, true],
/// <bytes in hexadecimal>, @microseconds since 1970, uid 7, null. "?" is a number that is sound but
/// does not fit.
inline std::string describe(const PropertyList &list) {
    using Kind = PropertyList::Kind;
    if (const auto string = list.asString()) {
        return fmt::format("\"{}\"", *string);
    }
    if (const auto integer = list.asInteger()) {
        return std::to_string(*integer);
    }
    if (const auto real = list.asReal()) {
        return fmt::format("{:.17g}", *real);
    }
    if (const auto boolean = list.asBoolean()) {
        return *boolean ? "true" : "false";
    }
    if (const auto data = list.asData()) {
        const std::vector<unsigned char> numbers(data->begin(), data->end());
        return fmt::format("<{:02x}>", fmt::join(numbers, ""));
    }
    if (const auto uid = list.asUID()) {
        return fmt::format("uid {}", *uid);
    }
    if (const auto date = list.asDate(); date || list.kind() == Kind::date) {
        return date ? fmt::format("@{}", date->time_since_epoch().count()) : "@?";
    }
    if (list.kind() != Kind::array && list.kind() != Kind::dictionary) {
        return list.kind() == Kind::null ? "null" : "?";
    }
    const bool isArray = list.kind() == Kind::array;
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < list.count(); ++i) {
        const auto label = isArray ? "" : fmt::format("\"{}\": ", list.key(i));
        parts.push_back(label + describe(list.at(i)));
    }
    const auto all = fmt::format("{}", fmt::join(parts, ", "));
    return isArray ? "[" + all + "]" : "{" + all + "}";
}

/// An XML list around `body`, with declaration and document type as the system writes them.
inline std::string xmlList(std::string_view body, std::string_view encoding = "UTF-8") {
    return fmt::format("<?xml version=\"1.0\" encoding=\"{}\"?>\n"
                       "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                       "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                       "<plist version=\"1.0\">\n{}\n</plist>\n",
                       encoding, body);
}

/// The number in `size` bytes, most significant first.
inline std::string bigEndian(std::uint64_t number, std::size_t size) {
    std::string bytes(size, '\0');
    for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, number >>= 8U) {
        *byte = static_cast<char>(number & 0xFFU);
    }
    return bytes;
}

/// UTF-8 text in code units of 2 or 4 bytes.
inline std::string wide(const std::string &utf8, std::size_t unitSize, bool isBigEndian) {
    std::string bytes;
    const auto add = [&](std::uint32_t unit) {
        const auto whole = bigEndian(unit, unitSize);
        bytes += isBigEndian ? whole : std::string(whole.rbegin(), whole.rend());
    };
    const std::filesystem::path text(utf8);
    if (unitSize == 2) {
        std::ranges::for_each(text.u16string(), add);
    } else {
        std::ranges::for_each(text.u32string(), add);
    }
    return bytes;
}

/// What is added to a binary list's end: the table of `offsets` and the trailer.
inline std::string binaryEnd(std::uint64_t tableOffset, const std::vector<std::uint64_t> &offsets,
                             std::size_t referenceSize) {
    constexpr std::size_t offsetSize = 4;
    std::string end;
    for (const auto offset : offsets) {
        end += bigEndian(offset, offsetSize);
    }
    return end + bigEndian(0, 6) + bigEndian(offsetSize, 1) + bigEndian(referenceSize, 1) +
           bigEndian(offsets.size(), 8) + bigEndian(0, 8) + bigEndian(tableOffset, 8);
}

/// A binary list of the objects as they stand, the first one on top.
inline std::string binaryList(const std::vector<std::string> &objects,
                              std::size_t referenceSize = 1) {
    std::string bytes = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (const auto &object : objects) {
        offsets.push_back(bytes.size());
        bytes += object;
    }
    return bytes + binaryEnd(bytes.size(), offsets, referenceSize);
}

} // namespace klarbox::test
