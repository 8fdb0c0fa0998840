#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <utf8proc.h>

namespace klarbox::Text {

namespace {

constexpr utf8proc_int32_t replacement = 0xFFFD;

/// One step through bytes that may not be UTF-8.
struct Scalar {
    utf8proc_int32_t value; ///< U+FFFD when the bytes are no character
    std::size_t length;     ///< bytes taken, at least 1
    bool valid;
};

/// The longest prefix of `bytes` that could still become a character: the unit that one
/// replacement character stands for.
std::size_t maximalSubpart(std::string_view bytes) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned lead = byte(0);
    // Bounds of the second byte rule out overlong forms, surrogates and values past U+10FFFF.
    unsigned low = 0x80;
    unsigned high = 0xBF;
    std::size_t needed = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        needed = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        needed = 2;
        low = lead == 0xE0 ? 0xA0 : low;
        high = lead == 0xED ? 0x9F : high;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        needed = 3;
        low = lead == 0xF0 ? 0x90 : low;
        high = lead == 0xF4 ? 0x8F : high;
    }
    std::size_t length = 1;
    while (length <= needed && length < bytes.size() && byte(length) >= low &&
           byte(length) <= high) {
        low = 0x80;
        high = 0xBF;
        ++length;
    }
    return length;
}

Scalar decode(std::string_view bytes) {
    // Nearly all text is ASCII, and a call per character would be most of the time spent on it.
    if (static_cast<signed char>(bytes.front()) >= 0) {
        return {bytes.front(), 1, true};
    }
    utf8proc_int32_t value = -1;
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t *>(bytes.data()),
                                         static_cast<utf8proc_ssize_t>(bytes.size()), &value);
    if (length > 0) {
        return {value, static_cast<std::size_t>(length), true};
    }
    return {replacement, maximalSubpart(bytes), false};
}

void append(std::string &text, utf8proc_int32_t scalar) {
    std::array<utf8proc_uint8_t, 4> bytes{};
    const auto length = utf8proc_encode_char(scalar, bytes.data());
    text.append(reinterpret_cast<const char *>(bytes.data()), static_cast<std::size_t>(length));
}

bool isNewline(utf8proc_int32_t scalar) {
    return (scalar >= 0x0A && scalar <= 0x0D) || scalar == 0x85 || scalar == 0x2028 ||
           scalar == 0x2029;
}

bool isWhiteSpace(utf8proc_int32_t scalar) {
    return scalar == ' ' || scalar == '\t' || isNewline(scalar) ||
           utf8proc_category(scalar) == UTF8PROC_CATEGORY_ZS;
}

bool isASCII(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return static_cast<signed char>(c) >= 0; });
}

char lowercasedASCII(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Zero-width and direction-changing characters are as able to mislead as control characters;
/// joiners (ZWNJ, ZWJ) are left because scripts and emoji need them.
bool needsEscape(utf8proc_int32_t scalar) {
    switch (utf8proc_category(scalar)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
        return true;
    case UTF8PROC_CATEGORY_CF:
        return scalar != 0x200C && scalar != 0x200D;
    default:
        return false;
    }
}

/// `text` through one of utf8proc's normalisations; nothing when there is no memory for it.
std::optional<std::string> mapped(std::string_view text, utf8proc_option_t option) {
    utf8proc_uint8_t *bytes = nullptr;
    const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t *>(text.data()),
                                     static_cast<utf8proc_ssize_t>(text.size()), &bytes, option);
    const std::unique_ptr<utf8proc_uint8_t, void (*)(void *)> owner(bytes, std::free);
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(length));
}

/// The escape of a character. Only below 128 is its number also its byte, and so `\xNN`.
std::string escape(utf8proc_int32_t scalar) {
    switch (scalar) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    default:
        return scalar < 0x80      ? fmt::format("\\x{:02x}", scalar)
               : scalar < 0x10000 ? fmt::format("\\u{:04x}", scalar)
                                  : fmt::format("\\U{:08x}", scalar);
    }
}

std::string shown(std::string_view text, std::string_view backslash) {
    std::string safe;
    safe.reserve(text.size());
    while (!text.empty()) {
        const auto scalar = decode(text);
        const auto bytes = text.substr(0, scalar.length);
        text.remove_prefix(scalar.length);
        if (!scalar.valid) {
            for (const char byte : bytes) {
                safe += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
            }
        } else if (needsEscape(scalar.value)) {
            safe += escape(scalar.value);
        } else {
            safe += bytes == "\\" ? backslash : bytes;
        }
    }
    return safe;
}

} // namespace

std::string lowercased(std::string_view text) {
    std::string lowered(text.size(), '\0');
    std::ranges::transform(text, lowered.begin(), lowercasedASCII);
    if (isASCII(text) || !isValidUTF8(text)) {
        return lowered;
    }
    const auto decomposed = mapped(text, UTF8PROC_DECOMPOSE);
    if (!decomposed) {
        return lowered;
    }
    // Letters are lower-cased apart from their marks and composed afterwards: the lower case of a
    // letter that has no composed form may have one.
    lowered.clear();
    for (std::string_view rest(*decomposed); !rest.empty();) {
        const auto scalar = decode(rest);
        rest.remove_prefix(scalar.length);
        append(lowered, utf8proc_tolower(scalar.value));
    }
    return mapped(lowered, UTF8PROC_COMPOSE).value_or(lowered);
}

std::string caseFolded(std::string_view text) {
    auto lowered = lowercased(text);
    constexpr int folding = UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE;
    if (isASCII(lowered) || !isValidUTF8(lowered)) {
        return lowered;
    }
    return mapped(lowered, static_cast<utf8proc_option_t>(folding)).value_or(lowered);
}

std::vector<std::string> foldedPathComponents(std::string_view path) {
    std::vector<std::string> components;
    while (!path.empty()) {
        const auto slash = path.find('/');
        if (slash != 0) {
            components.push_back(lowercased(path.substr(0, slash)));
        }
        path = slash == std::string_view::npos ? std::string_view{} : path.substr(slash + 1);
    }
    return components;
}

std::string foldedPath(std::string_view path) {
    return fmt::format("/{}", fmt::join(foldedPathComponents(path), "/"));
}

std::optional<std::size_t> lowercaseLetters(std::string_view text) {
    std::size_t count = 0;
    utf8proc_int32_t previous = 0;
    utf8proc_int32_t state = 0;
    while (!text.empty()) {
        const auto scalar = decode(text);
        text.remove_prefix(scalar.length);
        const bool begins =
            count == 0 || utf8proc_grapheme_break_stateful(previous, scalar.value, &state);
        if (begins && utf8proc_category(scalar.value) != UTF8PROC_CATEGORY_LL) {
            return std::nullopt;
        }
        count += begins ? 1 : 0;
        previous = scalar.value;
    }
    return count;
}

bool isValidUTF8(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto scalar = decode(bytes);
        if (!scalar.valid) {
            return false;
        }
        bytes.remove_prefix(scalar.length);
    }
    return true;
}

std::string repairedUTF8(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    std::size_t kept = 0; // everything before is in `text`
    for (std::size_t at = 0; at < bytes.size();) {
        const auto scalar = decode(bytes.substr(at));
        if (!scalar.valid) {
            text.append(bytes.substr(kept, at - kept));
            append(text, replacement);
            kept = at + scalar.length;
        }
        at += scalar.length;
    }
    return text.append(bytes.substr(kept));
}

std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> found;
    std::size_t begin = 0;
    std::size_t at = 0;
    const auto endLine = [&] {
        if (at > begin) {
            found.push_back(text.substr(begin, at - begin));
        }
    };
    while (at < text.size()) {
        const auto scalar = decode(text.substr(at));
        if (isNewline(scalar.value)) {
            endLine();
            begin = at + scalar.length;
        }
        at += scalar.length;
    }
    endLine();
    return found;
}

std::string_view trimmed(std::string_view text) {
    std::size_t begin = text.size();
    std::size_t end = 0;
    for (std::size_t at = 0; at < text.size();) {
        const auto scalar = decode(text.substr(at));
        if (!isWhiteSpace(scalar.value)) {
            begin = std::min(begin, at);
            end = at + scalar.length;
        }
        at += scalar.length;
    }
    return end == 0 ? std::string_view{} : text.substr(begin, end - begin);
}

std::string visible(std::string_view text) {
    return shown(text, "\\");
}

std::string escaped(std::string_view text) {
    return shown(text, "\\\\");
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const auto scalar = decode(text);
        text.remove_prefix(scalar.length);
        width += static_cast<std::size_t>(std::max(0, utf8proc_charwidth(scalar.value)));
    }
    return width;
}

std::string middleTruncated(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) {
        return std::string(text);
    }
    if (width == 0) {
        return {};
    }
    const std::size_t headRoom = width / 2;
    const std::size_t tailRoom = width - 1 - headRoom;
    struct Piece {
        std::size_t begin;
        std::size_t width;
    };
    std::vector<Piece> pieces;
    for (std::size_t at = 0; at < text.size();) {
        const auto scalar = decode(text.substr(at));
        const auto columns =
            static_cast<std::size_t>(std::max(0, utf8proc_charwidth(scalar.value)));
        // A combining mark belongs to the character before it.
        if (columns > 0 || pieces.empty()) {
            pieces.push_back({at, columns});
        }
        at += scalar.length;
    }
    std::size_t head = 0;
    std::size_t used = 0;
    while (head < pieces.size() && used + pieces[head].width <= headRoom) {
        used += pieces[head++].width;
    }
    std::size_t tail = pieces.size();
    used = 0;
    while (tail > head && used + pieces[tail - 1].width <= tailRoom) {
        used += pieces[--tail].width;
    }
    const auto headEnd = head < pieces.size() ? pieces[head].begin : text.size();
    const auto tailBegin = tail < pieces.size() ? pieces[tail].begin : text.size();
    return fmt::format("{}…{}", text.substr(0, headEnd), text.substr(tailBegin));
}

} // namespace klarbox::Text
