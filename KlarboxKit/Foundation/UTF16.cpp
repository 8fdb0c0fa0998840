#include "KlarboxKit/Foundation/UTF16.hpp"

#include <array>
#include <cstddef>
#include <utility>

#include <utf8proc.h>

namespace klarbox::UTF16 {

namespace {

constexpr char32_t replacement = 0xFFFD;

constexpr bool isHigh(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

constexpr bool isLow(char16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

} // namespace

void appendUTF8(std::string &text, char32_t character) {
    if (character < 0x80) {
        text.push_back(static_cast<char>(character));
        return;
    }
    auto scalar = static_cast<utf8proc_int32_t>(character);
    if (character > 0x10FFFF || !utf8proc_codepoint_valid(scalar)) {
        scalar = replacement;
    }
    std::array<utf8proc_uint8_t, 4> bytes{};
    const auto length = utf8proc_encode_char(scalar, bytes.data());
    text.append(reinterpret_cast<const char *>(bytes.data()), static_cast<std::size_t>(length));
}

void Decoder::add(char16_t unit) {
    if (high_ != 0 && isLow(unit)) {
        const auto high = std::exchange(high_, 0);
        appendUTF8(out_, 0x10000U + ((high & 0x3FFU) << 10U) + (unit & 0x3FFU));
        return;
    }
    finish();
    if (isHigh(unit)) {
        high_ = unit;
    } else {
        appendUTF8(out_, unit);
    }
}

void Decoder::finish() {
    if (std::exchange(high_, 0) != 0) {
        appendUTF8(out_, replacement);
    }
}

std::string decode(std::string_view bytes, bool bigEndian) {
    std::string text;
    text.reserve(bytes.size() / 2);
    Decoder decoder(text);
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
        const auto first = static_cast<unsigned char>(bytes[at]);
        const auto second = static_cast<unsigned char>(bytes[at + 1]);
        decoder.add(static_cast<char16_t>(bigEndian ? first << 8U | second : second << 8U | first));
    }
    decoder.finish();
    if (bytes.size() % 2 != 0) {
        appendUTF8(text, replacement);
    }
    return text;
}

} // namespace klarbox::UTF16
