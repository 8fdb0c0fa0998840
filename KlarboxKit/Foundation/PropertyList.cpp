#include "KlarboxKit/Foundation/PropertyList.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyListBuilder.hpp"
#include "KlarboxKit/Foundation/PropertyListFormats.hpp"
#include "KlarboxKit/Foundation/UTF16.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

namespace klarbox {

namespace {

using Node = PropertyListDocument::Node;

/// From the beginning of 1970 to that of 2001, which binary lists count from.
constexpr double epochOf2001 = 978'307'200;

constexpr std::string_view whiteSpace = " \t\n\v\f\r";

const Node &node(const PropertyListDocument &document, std::uint32_t index) {
    return document.nodes[index];
}

std::string_view bytesOf(const PropertyListDocument &document, std::uint32_t index) {
    const auto &found = node(document, index);
    return std::string_view(document.bytes).substr(found.value, found.count);
}

std::string fromUTF32(std::string_view bytes, bool bigEndian) {
    std::string text;
    for (std::size_t at = 0; at + 4 <= bytes.size(); at += 4) {
        char32_t character = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const auto byte = static_cast<unsigned char>(bytes[at + (bigEndian ? i : 3 - i)]);
            character = character << 8U | byte;
        }
        UTF16::appendUTF8(text, character);
    }
    return text;
}

/// How the bytes of a text begin, and what that says about the rest.
struct Signature {
    std::string_view prefix;
    std::size_t skipped; ///< bytes that are no part of the text
    std::string (*transcode)(std::string_view bytes, bool bigEndian);
    bool bigEndian;
};

using namespace std::string_view_literals;
constexpr Signature signatures[] = {
    {"\xFF\xFE\0\0"sv, 4, fromUTF32, false}, //
    {"\0\0\xFE\xFF"sv, 4, fromUTF32, true},  //
    {"\xFF\xFE"sv, 2, UTF16::decode, false}, //
    {"\xFE\xFF"sv, 2, UTF16::decode, true},  //
    {"<\0"sv, 0, UTF16::decode, false},      //
    {"\0<"sv, 0, UTF16::decode, true},
};

PropertyList parseTextual(std::string_view text, bool isUTF8) {
    const auto begin = std::min(text.find_first_not_of(whiteSpace), text.size());
    if (PropertyListFormats::looksLikeXML(text.substr(begin))) {
        // White space before an XML declaration is an error of XML's, but lists are read with it.
        const auto lines = std::ranges::count(text.substr(0, begin), '\n');
        return PropertyListFormats::parseXML(text.substr(begin), isUTF8,
                                             static_cast<std::size_t>(lines) + 1);
    }
    return PropertyListFormats::parseText(text);
}

} // namespace

PropertyList PropertyList::parse(std::string_view bytes) {
    if (bytes.size() > maximumSize) {
        throw PlatformError::cocoa(
            PlatformError::fileReadTooLarge,
            fmt::format("the property list is longer than {} bytes", maximumSize));
    }
    if (bytes.empty()) {
        PropertyListBuilder::fail("it is empty");
    }
    if (bytes.starts_with("bplist0")) {
        return PropertyListFormats::parseBinary(bytes);
    }
    for (const auto &signature : signatures) {
        if (bytes.starts_with(signature.prefix)) {
            const auto rest = bytes.substr(signature.skipped);
            return parseTextual(signature.transcode(rest, signature.bigEndian), true);
        }
    }
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    const bool isUTF8 = bytes.starts_with(mark);
    return parseTextual(isUTF8 ? bytes.substr(mark.size()) : bytes, isUTF8);
}

PropertyList::Kind PropertyList::kind() const {
    return node(*document_, index_).kind;
}

std::size_t PropertyList::count() const {
    const auto &self = node(*document_, index_);
    return self.kind == Kind::array || self.kind == Kind::dictionary ? self.count : 0;
}

PropertyList PropertyList::at(std::size_t index) const {
    if (index >= count()) {
        throw std::out_of_range("property list: no such element");
    }
    const auto begin = node(*document_, index_).value;
    const auto position = kind() == Kind::dictionary ? 2 * index + 1 : index;
    return {document_, document_->children[begin + position]};
}

std::string_view PropertyList::key(std::size_t index) const {
    if (kind() != Kind::dictionary || index >= count()) {
        throw std::out_of_range("property list: no such key");
    }
    const auto begin = node(*document_, index_).value;
    return bytesOf(*document_, document_->children[begin + 2 * index]);
}

std::optional<PropertyList> PropertyList::find(std::string_view key) const {
    if (kind() != Kind::dictionary) {
        return std::nullopt;
    }
    for (auto index = count(); index-- > 0;) {
        if (this->key(index) == key) {
            return at(index);
        }
    }
    return std::nullopt;
}

std::optional<std::string_view> PropertyList::asString() const {
    return kind() == Kind::string ? std::optional(bytesOf(*document_, index_)) : std::nullopt;
}

std::optional<std::string_view> PropertyList::asData() const {
    return kind() == Kind::data ? std::optional(bytesOf(*document_, index_)) : std::nullopt;
}

std::optional<std::int64_t> PropertyList::asInteger() const {
    const auto &self = node(*document_, index_);
    return self.kind == Kind::integer && self.count == 1
               ? std::optional(static_cast<std::int64_t>(self.value))
               : std::nullopt;
}

std::optional<double> PropertyList::asReal() const {
    const auto &self = node(*document_, index_);
    return self.kind == Kind::real && self.count == 1
               ? std::optional(std::bit_cast<double>(self.value))
               : std::nullopt;
}

std::optional<bool> PropertyList::asBoolean() const {
    const auto &self = node(*document_, index_);
    return self.kind == Kind::boolean ? std::optional(self.value != 0) : std::nullopt;
}

std::optional<Date> PropertyList::asDate() const {
    const auto &self = node(*document_, index_);
    const auto seconds = std::bit_cast<double>(self.value) + epochOf2001;
    if (self.kind != Kind::date || std::isnan(seconds)) {
        return std::nullopt;
    }
    // Beyond what a whole number of seconds can say, the furthest date stands for it.
    constexpr double furthest = 1e18;
    const auto whole = std::floor(std::clamp(seconds, -furthest, furthest));
    const auto fraction = std::clamp(seconds - whole, 0.0, 1.0);
    return dateAt(static_cast<std::int64_t>(whole), static_cast<std::int64_t>(fraction * 1e9));
}

std::optional<std::uint64_t> PropertyList::asUID() const {
    const auto &self = node(*document_, index_);
    return self.kind == Kind::uid ? std::optional(self.value) : std::nullopt;
}

} // namespace klarbox
