#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyListBuilder.hpp"
#include "KlarboxKit/Foundation/PropertyListFormats.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <exception>
#include <iconv.h>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <strings.h>

#include <expat.h>
#include <fmt/format.h>

namespace klarbox::PropertyListFormats {

namespace {

using Kind = PropertyList::Kind;

enum class Element { plist, dict, array, key, string, data, date, integer, real, yes, no };

struct ElementName {
    std::string_view name;
    Element element;
};
constexpr std::array elementNames{
    ElementName{"plist", Element::plist},   ElementName{"dict", Element::dict},
    ElementName{"array", Element::array},   ElementName{"key", Element::key},
    ElementName{"string", Element::string}, ElementName{"data", Element::data},
    ElementName{"date", Element::date},     ElementName{"integer", Element::integer},
    ElementName{"real", Element::real},     ElementName{"true", Element::yes},
    ElementName{"false", Element::no},
};

/// The document type that lists name declares a handful of attributes. Each declared one costs time
/// at every element, so that a list declaring many would take time by the square of its length.
constexpr int maximumDeclaredAttributes = 32;

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// Text for a message: short, and nothing that could disturb a terminal.
std::string excerpt(std::string_view text) {
    return Text::middleTruncated(Text::visible(text.substr(0, 200)), 40);
}

std::string_view withoutSpace(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

template <typename Number, typename... Format>
std::optional<Number> number(std::string_view digits, Format... format) {
    Number value{};
    const auto *end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, value, format...);
    return result.ec == std::errc{} && result.ptr == end ? std::optional(value) : std::nullopt;
}

/// Decimal or "0x" with a sign or without; an integer of more digits than 64 bits hold is still
/// one.
PropertyListBuilder::Index addInteger(PropertyListBuilder &builder, std::string_view text) {
    auto digits = withoutSpace(text);
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) {
        digits.remove_prefix(1);
    }
    const bool hexadecimal = digits.starts_with("0x") || digits.starts_with("0X");
    if (hexadecimal) {
        digits.remove_prefix(2);
    }
    const auto isDigit = [&](char c) { return hexadecimal ? isHexDigit(c) : c >= '0' && c <= '9'; };
    if (digits.empty() || !std::ranges::all_of(digits, isDigit)) {
        PropertyListBuilder::fail(fmt::format("“{}” is no integer", excerpt(text)));
    }
    return builder.addInteger(number<std::int64_t>(
        negative ? "-" + std::string(digits) : std::string(digits), hexadecimal ? 16 : 10));
}

/// Nothing for a number too large or too small for the type, which is still one.
std::optional<double> realNumber(std::string_view text) {
    auto digits = withoutSpace(text);
    if (digits.starts_with('+') && !digits.starts_with("+-")) {
        digits.remove_prefix(1);
    }
    double value = 0;
    const auto *end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, value);
    const bool isBeyond = result.ec == std::errc::result_out_of_range;
    if ((result.ec != std::errc{} && !isBeyond) || result.ptr != end) {
        PropertyListBuilder::fail(fmt::format("“{}” is no number", excerpt(text)));
    }
    return isBeyond ? std::nullopt : std::optional(value);
}

/// "2026-11-22T12:30:00Z"; the time may end after any of its fields. Seconds since 2001.
double date(std::string_view text) {
    const auto fail = [&] {
        PropertyListBuilder::fail(fmt::format("“{}” is no date", excerpt(text)));
    };
    auto rest = withoutSpace(text);
    const bool beforeChrist = rest.starts_with('-');
    if (beforeChrist) {
        rest.remove_prefix(1);
    }
    constexpr std::string_view separators = "--T::";
    std::array<int, 6> fields{}; // year, month, day, hour, minute, second
    std::size_t count = 0;
    for (; count < fields.size(); ++count) {
        const auto digits = count == 0 ? std::min(rest.find('-'), rest.size()) : 2;
        const auto field = number<int>(rest.substr(0, digits));
        if (rest.size() < digits || !field || *field < 0 || *field > 32'767) {
            fail();
        }
        fields[count] = *field;
        rest.remove_prefix(digits);
        if (count + 1 < fields.size() && rest.starts_with(separators[count])) {
            rest.remove_prefix(1);
        } else {
            break;
        }
    }
    namespace chrono = std::chrono;
    const auto year = chrono::year(beforeChrist ? -fields[0] : fields[0]);
    const chrono::year_month_day day(year, chrono::month(static_cast<unsigned>(fields[1])),
                                     chrono::day(static_cast<unsigned>(fields[2])));
    // A leap second is written as second 60.
    if (count < 2 || rest != "Z" || !day.ok() || fields[3] > 24 || fields[4] > 59 ||
        fields[5] > 60) {
        fail();
    }
    const auto time = chrono::sys_days(day) + chrono::hours(fields[3]) +
                      chrono::minutes(fields[4]) + chrono::seconds(fields[5]);
    constexpr auto epoch = chrono::sys_days(chrono::year(2001) / 1 / 1);
    return static_cast<double>((time - epoch) / chrono::seconds(1));
}

/// Decodes Base64 up to its padding. Characters outside the alphabet are skipped, as every reader
/// of lists does: they are indentation, mostly.
std::string base64(std::string_view text) {
    static constexpr auto values = [] {
        constexpr std::string_view alphabet =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::array<signed char, 256> table{};
        table.fill(-1);
        for (std::size_t i = 0; i < alphabet.size(); ++i) {
            table[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
        }
        return table;
    }();
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    unsigned bits = 0;
    int held = 0;
    for (const char c : text) {
        if (c == '=') {
            break;
        }
        const auto value = values[static_cast<unsigned char>(c)];
        if (value < 0) {
            continue;
        }
        bits = bits << 6U | static_cast<unsigned>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            bytes.push_back(static_cast<char>(bits >> static_cast<unsigned>(held) & 0xFFU));
        }
    }
    return bytes;
}

/// The characters that an encoding's single bytes stand for. Tells expat of encodings that it does
/// not know itself; those with longer characters stay unknown.
int readEncoding(const XML_Char *name, XML_Encoding *encoding) {
    const auto converter = ::iconv_open("UTF-32LE", name);
    if (converter == reinterpret_cast<iconv_t>(-1)) { // NOLINT: how iconv says that
        return XML_STATUS_ERROR;
    }
    bool isKnown = true;
    for (std::size_t byte = 0; byte < 256; ++byte) {
        char in = static_cast<char>(byte);
        std::array<unsigned char, 4> out{};
        char *inAt = &in;
        auto *outAt = reinterpret_cast<char *>(out.data());
        std::size_t inLeft = 1;
        std::size_t outLeft = out.size();
        ::iconv(converter, nullptr, nullptr, nullptr, nullptr);
        errno = 0;
        const bool converted =
            ::iconv(converter, &inAt, &inLeft, &outAt, &outLeft) != static_cast<std::size_t>(-1) &&
            outLeft == 0;
        isKnown = isKnown && (converted || errno == EILSEQ);
        encoding->map[byte] = converted ? out[0] | out[1] << 8 | out[2] << 16 : -1;
    }
    ::iconv_close(converter);
    encoding->data = nullptr;
    encoding->convert = nullptr;
    encoding->release = nullptr;
    return isKnown ? XML_STATUS_OK : XML_STATUS_ERROR;
}

class Reader {
public:
    Reader(bool isUTF8, std::size_t firstLine)
        : parser_(::XML_ParserCreate(isUTF8 ? "UTF-8" : nullptr), ::XML_ParserFree),
          firstLine_(firstLine) {
        if (!parser_) {
            throw std::bad_alloc();
        }
        ::XML_SetUserData(parser_.get(), this);
        ::XML_SetElementHandler(
            parser_.get(),
            [](void *self, const XML_Char *name, const XML_Char **) {
                static_cast<Reader *>(self)->guarded([&](Reader &reader) { reader.begin(name); });
            },
            [](void *self, const XML_Char *) {
                static_cast<Reader *>(self)->guarded([](Reader &reader) { reader.end(); });
            });
        ::XML_SetCharacterDataHandler(
            parser_.get(), [](void *self, const XML_Char *text, int length) {
                static_cast<Reader *>(self)->guarded([&](Reader &reader) {
                    reader.characters({text, static_cast<std::size_t>(length)});
                });
            });
        // Entities of one's own are good for nothing in a list but for making it expand.
        ::XML_SetEntityDeclHandler(parser_.get(),
                                   [](void *self, const XML_Char *, int, const XML_Char *, int,
                                      const XML_Char *, const XML_Char *, const XML_Char *,
                                      const XML_Char *) {
                                       static_cast<Reader *>(self)->guarded([](Reader &) {
                                           PropertyListBuilder::fail("it declares entities");
                                       });
                                   });
        ::XML_SetSkippedEntityHandler(parser_.get(), [](void *self, const XML_Char *name, int) {
            static_cast<Reader *>(self)->guarded([&](Reader &) {
                PropertyListBuilder::fail(fmt::format("unknown entity “{}”", excerpt(name)));
            });
        });
        ::XML_SetAttlistDeclHandler(parser_.get(), [](void *self, const XML_Char *,
                                                      const XML_Char *, const XML_Char *,
                                                      const XML_Char *, int) {
            static_cast<Reader *>(self)->guarded([](Reader &reader) {
                if (++reader.declaredAttributes_ > maximumDeclaredAttributes) {
                    PropertyListBuilder::fail("it declares too many attributes");
                }
            });
        });
        ::XML_SetUnknownEncodingHandler(
            parser_.get(),
            [](void *self, const XML_Char *name, XML_Encoding *encoding) {
                static_cast<Reader *>(self)->isUTF8_ = ::strcasecmp(name, "UTF8") == 0;
                return readEncoding(name, encoding);
            },
            this);
    }

    PropertyList read(std::string_view text) {
        // In one piece: given in several, a token that spans them is looked at again for each.
        const auto status =
            ::XML_Parse(parser_.get(), text.data(), static_cast<int>(text.size()), XML_TRUE);
        if (error_) {
            std::rethrow_exception(error_);
        }
        if (isDone_) {
            return builder_.finish(*root_);
        }
        const auto code = ::XML_GetErrorCode(parser_.get());
        switch (code) {
        case XML_ERROR_NO_MEMORY:
            throw std::bad_alloc();
        case XML_ERROR_UNKNOWN_ENCODING:
            if (isUTF8_) {
                return Reader(true, firstLine_).read(text);
            }
            throw PlatformError::cocoa(PlatformError::featureUnsupported,
                                       "the property list's character encoding is unknown");
        default:
            PropertyListBuilder::fail(
                status == XML_STATUS_OK ? "there is no value in it"
                                        : fmt::format("{} ({})", ::XML_ErrorString(code), where()));
        }
    }

private:
    /// Runs a handler. The parser is C, through which nothing may be thrown: a failure is kept, and
    /// the parser told to stop.
    template <typename Handler>
    void guarded(const Handler &handler) {
        if (error_ || isDone_) {
            return;
        }
        try {
            handler(*this);
        } catch (const PlatformError &error) {
            stop(error.code() == PlatformError::propertyListReadCorrupt
                     ? std::make_exception_ptr(PlatformError::cocoa(
                           error.code(), fmt::format("{} ({})", error.message(), where())))
                     : std::current_exception());
        } catch (...) {
            stop(std::current_exception());
        }
    }

    void stop(std::exception_ptr error) {
        error_ = std::move(error);
        ::XML_StopParser(parser_.get(), XML_FALSE);
    }

    std::string where() const {
        return fmt::format("line {}, column {}",
                           ::XML_GetCurrentLineNumber(parser_.get()) - 1 + firstLine_,
                           ::XML_GetCurrentColumnNumber(parser_.get()) + 1);
    }

    void begin(std::string_view name) {
        const auto found = std::ranges::find(elementNames, name, &ElementName::name);
        if (found == elementNames.end()) {
            PropertyListBuilder::fail(fmt::format("unknown element “{}”", excerpt(name)));
        }
        if (leaf_) {
            PropertyListBuilder::fail(fmt::format("“{}” stands inside a simple value", name));
        }
        const auto element = found->element;
        const bool isPlist = element == Element::plist;
        const bool hasOneValue = nesting_.isEmpty();
        if (isPlist ? depth_ > 0 : hasOneValue && root_) {
            PropertyListBuilder::fail(fmt::format("“{}” is one value too many", name));
        }
        if (!isPlist && nesting_.expectsKey() != (element == Element::key)) {
            PropertyListBuilder::fail(fmt::format("“{}” does not belong here", name));
        }
        ++depth_;
        if (element == Element::dict || element == Element::array) {
            nesting_.open(element == Element::dict ? Kind::dictionary : Kind::array);
        } else if (!isPlist) {
            leaf_ = element;
            text_.clear();
        }
    }

    void characters(std::string_view text) {
        if (leaf_) {
            text_.append(text);
        } else if (!std::ranges::all_of(text, isSpace)) {
            PropertyListBuilder::fail(
                fmt::format("“{}” stands outside a value", excerpt(withoutSpace(text))));
        }
    }

    void end() {
        --depth_;
        // Elements are closed in order, which the parser sees to.
        if (leaf_) {
            const auto value = leafValue(*leaf_);
            leaf_.reset();
            put(value);
        } else if (!nesting_.isEmpty()) {
            if (nesting_.kind() == Kind::dictionary && !nesting_.expectsKey()) {
                PropertyListBuilder::fail("a key without a value");
            }
            put(nesting_.close());
        }
        if (depth_ == 0) {
            if (!root_) {
                PropertyListBuilder::fail("there is no value in it");
            }
            // The system's own reader looks no further than the end of the first element, so what
            // follows (the rest of a longer file written over, say) does no harm.
            isDone_ = true;
            ::XML_StopParser(parser_.get(), XML_FALSE);
        }
    }

    void put(PropertyListBuilder::Index value) {
        if (nesting_.isEmpty()) {
            root_ = value;
        } else {
            nesting_.append(value);
        }
    }

    PropertyListBuilder::Index leafValue(Element element) {
        switch (element) {
        case Element::key:
        case Element::string:
            return builder_.addString(text_);
        case Element::data:
            return builder_.addData(base64(text_));
        case Element::date:
            return builder_.addDate(date(text_));
        case Element::integer:
            return addInteger(builder_, text_);
        case Element::real:
            return builder_.addReal(realNumber(text_));
        default:
            if (!std::ranges::all_of(text_, isSpace)) {
                PropertyListBuilder::fail(fmt::format("“{}” in a truth value", excerpt(text_)));
            }
            return builder_.addBoolean(element == Element::yes);
        }
    }

    std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser_;
    std::size_t firstLine_;
    bool isUTF8_ = false; ///< by a name that people use but the parser does not know
    PropertyListBuilder builder_;
    PropertyListNesting nesting_{builder_};
    std::optional<PropertyListBuilder::Index> root_;
    std::optional<Element> leaf_; ///< the simple value that is being read
    std::string text_;            ///< of `leaf_` so far
    std::size_t depth_ = 0;
    int declaredAttributes_ = 0;
    bool isDone_ = false;
    std::exception_ptr error_;
};

constexpr bool isForbidden(char c) {
    return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
}

} // namespace

bool looksLikeXML(std::string_view text) {
    if (!text.starts_with('<')) {
        return false;
    }
    const auto name = text.substr(1, text.find('>') - 1);
    return !std::ranges::all_of(name, [](char c) { return isHexDigit(c) || isSpace(c); });
}

PropertyList parseXML(std::string_view text, bool isUTF8, std::size_t firstLine) {
    // XML has no place for control characters, but the system writes them into lists and reads them
    // again (key equivalents of menus hold ESC): a list is not damaged by them.
    std::string repaired;
    if (std::ranges::any_of(text, isForbidden)) {
        repaired.reserve(text.size());
        std::ranges::replace_copy_if(text, std::back_inserter(repaired), isForbidden, '?');
        text = repaired;
    }
    return Reader(isUTF8, firstLine).read(text);
}

} // namespace klarbox::PropertyListFormats
