#include "Tests/Platform/PropertyListSamples.hpp"

#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <utf8proc.h>

namespace klarbox::test {

namespace {

using Kind = PropertyList::Kind;

std::string quoted(std::string_view text) {
    return fmt::format("\"{}\"", text);
}

} // namespace

std::string describe(const PropertyList &list) {
    switch (list.kind()) {
    case Kind::dictionary: {
        std::vector<std::string> pairs;
        for (std::size_t i = 0; i < list.count(); ++i) {
            pairs.push_back(quoted(list.key(i)) + ": " + describe(list.at(i)));
        }
        return fmt::format("{{{}}}", fmt::join(pairs, ", "));
    }
    case Kind::array: {
        std::vector<std::string> elements;
        for (std::size_t i = 0; i < list.count(); ++i) {
            elements.push_back(describe(list.at(i)));
        }
        return fmt::format("[{}]", fmt::join(elements, ", "));
    }
    case Kind::string:
        return quoted(list.asString().value());
    case Kind::integer:
        return list.asInteger() ? std::to_string(*list.asInteger()) : "?";
    case Kind::real:
        return list.asReal() ? fmt::format("{:.17g}", *list.asReal()) : "?";
    case Kind::boolean:
        return list.asBoolean().value() ? "true" : "false";
    case Kind::date: {
        const auto date = list.asDate();
        return "@" + (date ? std::to_string(date->time_since_epoch().count()) : "?");
    }
    case Kind::data: {
        std::string digits = "<";
        const auto bytes = list.asData().value();
        for (const char byte : bytes) {
            digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
        }
        return digits + ">";
    }
    case Kind::uid:
        return fmt::format("uid {}", list.asUID().value());
    case Kind::null:
        return "null";
    }
    return "a kind that there is not";
}

std::string xmlList(std::string_view body, std::string_view encoding) {
    return fmt::format("<?xml version=\"1.0\" encoding=\"{}\"?>\n"
                       "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                       "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                       "<plist version=\"1.0\">\n{}\n</plist>\n",
                       encoding, body);
}

std::string bigEndian(std::uint64_t number, std::size_t size) {
    std::string bytes(size, '\0');
    for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, number >>= 8U) {
        *byte = static_cast<char>(number & 0xFFU);
    }
    return bytes;
}

std::string wide(std::string_view utf8, std::size_t unitSize, bool isBigEndian) {
    std::string bytes;
    const auto add = [&](std::uint32_t unit) {
        const auto whole = bigEndian(unit, unitSize);
        bytes += isBigEndian ? whole : std::string(whole.rbegin(), whole.rend());
    };
    while (!utf8.empty()) {
        utf8proc_int32_t scalar = 0;
        const auto length =
            utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t *>(utf8.data()),
                             static_cast<utf8proc_ssize_t>(utf8.size()), &scalar);
        utf8.remove_prefix(static_cast<std::size_t>(length));
        const auto character = static_cast<std::uint32_t>(scalar);
        if (unitSize == 2 && character > 0xFFFF) {
            add(0xD800U + ((character - 0x10000U) >> 10U));
            add(0xDC00U + (character & 0x3FFU));
        } else {
            add(character);
        }
    }
    return bytes;
}

std::string binaryEnd(std::uint64_t tableOffset, const std::vector<std::uint64_t> &offsets,
                      std::size_t referenceSize) {
    constexpr std::size_t offsetSize = 4;
    std::string end;
    for (const auto offset : offsets) {
        end += bigEndian(offset, offsetSize);
    }
    return end + bigEndian(0, 6) + bigEndian(offsetSize, 1) + bigEndian(referenceSize, 1) +
           bigEndian(offsets.size(), 8) + bigEndian(0, 8) + bigEndian(tableOffset, 8);
}

std::string binaryList(const std::vector<std::string> &objects, std::size_t referenceSize) {
    std::string bytes = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (const auto &object : objects) {
        offsets.push_back(bytes.size());
        bytes += object;
    }
    return bytes + binaryEnd(bytes.size(), offsets, referenceSize);
}

} // namespace klarbox::test
