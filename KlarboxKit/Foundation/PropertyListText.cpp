#include "KlarboxKit/Foundation/PropertyListBuilder.hpp"
#include "KlarboxKit/Foundation/PropertyListFormats.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Foundation/UTF16.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include <fmt/format.h>

namespace klarbox::PropertyListFormats {

namespace {

using Index = PropertyListBuilder::Index;
using Kind = PropertyList::Kind;

/// What "\200" to "\377" stand for: the upper half of the character set that the format grew up
/// with.
constexpr std::array<char16_t, 128> upperHalf{
    0x00A0, 0x00C0, 0x00C1, 0x00C2, 0x00C3, 0x00C4, 0x00C5, 0x00C7, 0x00C8, 0x00C9, 0x00CA, 0x00CB,
    0x00CC, 0x00CD, 0x00CE, 0x00CF, 0x00D0, 0x00D1, 0x00D2, 0x00D3, 0x00D4, 0x00D5, 0x00D6, 0x00D9,
    0x00DA, 0x00DB, 0x00DC, 0x00DD, 0x00DE, 0x00B5, 0x00D7, 0x00F7, 0x00A9, 0x00A1, 0x00A2, 0x00A3,
    0x2044, 0x00A5, 0x0192, 0x00A7, 0x00A4, 0x2019, 0x201C, 0x00AB, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x00AE, 0x2013, 0x2020, 0x2021, 0x00B7, 0x00A6, 0x00B6, 0x2022, 0x201A, 0x201E, 0x201D, 0x00BB,
    0x2026, 0x2030, 0x00AC, 0x00BF, 0x00B9, 0x02CB, 0x00B4, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9,
    0x00A8, 0x00B2, 0x02DA, 0x00B8, 0x00B3, 0x02DD, 0x02DB, 0x02C7, 0x2014, 0x00B1, 0x00BC, 0x00BD,
    0x00BE, 0x00E0, 0x00E1, 0x00E2, 0x00E3, 0x00E4, 0x00E5, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB,
    0x00EC, 0x00C6, 0x00ED, 0x00AA, 0x00EE, 0x00EF, 0x00F0, 0x00F1, 0x0141, 0x00D8, 0x0152, 0x00BA,
    0x00F2, 0x00F3, 0x00F4, 0x00F5, 0x00F6, 0x00E6, 0x00F9, 0x00FA, 0x00FB, 0x0131, 0x00FC, 0x00FD,
    0x0142, 0x00F8, 0x0153, 0x00DF, 0x00FE, 0x00FF, 0xFFFD, 0xFFFD,
};

bool isBare(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '/' || c == ':' || c == '.' || c == '-';
}

std::optional<unsigned> hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    const auto lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? std::optional(static_cast<unsigned>(lower - 'a' + 10))
                                        : std::nullopt;
}

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    PropertyList read() {
        skipSpace();
        if (atEnd()) {
            return builder_.finish(builder_.addContainer(Kind::dictionary, 0));
        }
        // One text and nothing else is a text; a text with more after it begins a strings file.
        const bool beginsWithText = isTextAhead();
        if (beginsWithText) {
            const auto text = readText();
            skipSpace();
            if (atEnd()) {
                return builder_.finish(text);
            }
            at_ = 0;
            nesting_.open(Kind::dictionary);
        } else {
            beginValue();
        }
        while (!root_) {
            skipSpace();
            if (nesting_.kind() == Kind::array) {
                readElement();
            } else {
                readPair(beginsWithText && nesting_.depth() == 1);
            }
        }
        skipSpace();
        if (!atEnd()) {
            fail("more after the end of the list");
        }
        return builder_.finish(*root_);
    }

private:
    [[noreturn]] void fail(std::string_view problem) const {
        const auto line = std::ranges::count(text_.substr(0, at_), '\n') + 1;
        PropertyListBuilder::fail(fmt::format("{} (line {})", problem, line));
    }

    bool atEnd() const { return at_ == text_.size(); }
    bool isAhead(std::string_view what) const { return text_.substr(at_).starts_with(what); }
    bool isTextAhead() const {
        return !atEnd() && (text_[at_] == '"' || text_[at_] == '\'' || isBare(text_[at_]));
    }

    bool skip(std::string_view what) {
        const bool found = isAhead(what);
        at_ += found ? what.size() : 0;
        return found;
    }

    /// Skips white space and comments.
    void skipSpace() {
        while (!atEnd()) {
            if (text_[at_] == ' ' || (text_[at_] >= '\t' && text_[at_] <= '\r')) {
                ++at_;
            } else if (isAhead("//")) {
                at_ = std::min(text_.find_first_of("\n\r", at_), text_.size());
            } else if (isAhead("/*")) {
                const auto end = text_.find("*/", at_ + 2);
                if (end == std::string_view::npos) {
                    fail("a comment without an end");
                }
                at_ = end + 2;
            } else if (!skip("\u2028") && !skip("\u2029")) {
                return;
            }
        }
    }

    /// Reads a simple value whole, and of a container the beginning.
    void beginValue() {
        if (isTextAhead()) {
            put(readText());
        } else if (skip("{")) {
            nesting_.open(Kind::dictionary);
        } else if (skip("(")) {
            nesting_.open(Kind::array);
        } else if (skip("<")) {
            put(readData());
        } else {
            fail(atEnd() ? "cut off" : "a value expected");
        }
    }

    /// Goes on in an array whose last element, if any, is complete.
    void readElement() {
        if (skip(")")) {
            endContainer();
            return;
        }
        if (nesting_.hasChildren()) {
            if (!skip(",")) {
                fail(atEnd() ? "an array without an end" : "“,” or “)” expected");
            }
            skipSpace();
            if (isAhead(")")) {
                return; // a comma after the last element
            }
        }
        beginValue();
    }

    /// Goes on in a dictionary whose last pair, if any, has its value but no ";" yet.
    void readPair(bool isStringsFile) {
        if (nesting_.hasChildren()) {
            if (!skip(";")) {
                fail(atEnd() ? "a dictionary without an end" : "“;” expected");
            }
            skipSpace();
        }
        if (isStringsFile ? atEnd() : skip("}")) {
            endContainer();
            return;
        }
        if (!isTextAhead()) {
            fail(atEnd() ? "a dictionary without an end" : "a key expected");
        }
        const auto key = readText();
        nesting_.append(key);
        skipSpace();
        if (isAhead(";")) {
            nesting_.append(key); // "key;" is short for "key = key;"
        } else if (skip("=")) {
            skipSpace();
            beginValue();
        } else {
            fail("“=” or “;” expected after a key");
        }
    }

    void endContainer() { put(nesting_.close()); }

    void put(Index value) {
        if (nesting_.isEmpty()) {
            root_ = value;
        } else {
            nesting_.append(value);
        }
    }

    Index readData() {
        std::string bytes;
        while (!skip(">")) {
            if (!atEnd() && (text_[at_] == ' ' || (text_[at_] >= '\t' && text_[at_] <= '\r'))) {
                ++at_;
                continue;
            }
            const auto high = digitAhead(0);
            const auto low = digitAhead(1);
            if (!high || !low) {
                fail("data that is not pairs of hexadecimal digits");
            }
            bytes.push_back(static_cast<char>(*high << 4U | *low));
            at_ += 2;
        }
        return builder_.addData(bytes);
    }

    std::optional<unsigned> digitAhead(std::size_t distance) const {
        return at_ + distance < text_.size() ? hexDigit(text_[at_ + distance]) : std::nullopt;
    }

    Index readText() {
        const char quote = text_[at_];
        if (quote == '"' || quote == '\'') {
            ++at_;
            return readQuoted(quote);
        }
        const auto begin = at_;
        while (!atEnd() && isBare(text_[at_])) {
            ++at_;
        }
        return builder_.addString(text_.substr(begin, at_ - begin));
    }

    Index readQuoted(char quote) {
        const char stops[] = {quote, '\\', '\0'};
        std::string text;
        UTF16::Decoder escapes(text); // characters beyond 16 bits are written as two escapes
        for (;;) {
            const auto stop = text_.find_first_of(stops, at_);
            if (stop == std::string_view::npos) {
                fail("a text without its closing quote");
            }
            if (stop > at_ || text_[stop] == quote) {
                escapes.finish();
            }
            text.append(text_.substr(at_, stop - at_));
            at_ = stop + 1;
            if (text_[stop] == quote) {
                return builder_.addString(text);
            }
            readEscape(escapes);
        }
    }

    /// Reads what follows a backslash.
    void readEscape(UTF16::Decoder &out) {
        if (atEnd()) {
            fail("a text without its closing quote");
        }
        constexpr std::string_view letters = "abfnrtv";
        constexpr std::string_view meanings = "\a\b\f\n\r\t\v";
        const char c = text_[at_];
        if (const auto letter = letters.find(c); letter != std::string_view::npos) {
            ++at_;
            out.add(static_cast<char16_t>(meanings[letter]));
        } else if (isOctalDigit(c)) {
            unsigned value = 0;
            for (int i = 0; i < 3 && !atEnd() && isOctalDigit(text_[at_]); ++i, ++at_) {
                value = value * 8 + static_cast<unsigned>(text_[at_] - '0');
            }
            value &= 0xFFU;
            out.add(value < 0x80 ? static_cast<char16_t>(value) : upperHalf[value - 0x80]);
        } else if (c == 'U') {
            ++at_;
            unsigned value = 0;
            for (int i = 0; i < 4; ++i, ++at_) {
                const auto digit = digitAhead(0);
                if (!digit) {
                    break;
                }
                value = value * 16 + *digit;
            }
            out.add(static_cast<char16_t>(value));
        } else if (static_cast<unsigned char>(c) < 0x80) {
            // Of any other character the backslash is dropped.
            ++at_;
            out.add(static_cast<char16_t>(c));
        }
        // A character of several bytes is left to be read as it stands.
    }

    std::string_view text_;
    std::size_t at_ = 0;
    PropertyListBuilder builder_;
    PropertyListNesting nesting_{builder_};
    std::optional<Index> root_;
};

} // namespace

PropertyList parseText(std::string_view text) {
    if (!Text::isValidUTF8(text)) {
        PropertyListBuilder::fail("neither XML, nor binary, nor text in UTF-8");
    }
    return Reader(text).read();
}

} // namespace klarbox::PropertyListFormats
