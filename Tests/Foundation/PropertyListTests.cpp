#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"

#include "Tests/Foundation/PropertyListSamples.hpp"

#include <sstream>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using namespace std::string_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// The error that reading ends with; no code when it ends well.
PlatformError failure(const std::string &bytes) {
    try {
        return PlatformError::cocoa(0, "read as " + describe(PropertyList::parse(bytes)));
    } catch (const PlatformError &error) {
        return error;
    }
}

struct Sample {
    std::string bytes;
    std::string expected; ///< description of what it says, or what is said to be wrong with it
};

std::string replaced(std::string text, std::string_view what, std::string_view with) {
    return text.replace(text.find(what), what.size(), with);
}

const std::string everyKind = xmlList(R"(<dict>
    <key>text</key><string>Grüße, 😀 &amp; &#x41;&#66;&lt;</string>
    <key></key><string/>
    <key>list</key><array><integer>1</integer><dict><key>a</key><array/></dict></array>
    <key>yes</key><true/><key>no</key><false></false>
    <key>real</key><real>-0.5</real>
    <key>date</key><date>2026-11-22T12:30:00Z</date>
    <key>data</key><data>
        AAEC
        /v8=
    </data>
</dict>)");
const std::string everyKindRead =
    R"({"text": "Grüße, 😀 & AB<", "": "", "list": [1, {"a": []}], "yes": true, "no": false, )"
    R"("real": -0.5, "date": @1795350600000000, "data": <000102feff>})";

std::string utf16List(bool isBigEndian) {
    return wide(replaced(everyKind, "UTF-8", "UTF-16"), 2, isBigEndian);
}

const std::vector<Sample> soundXML{
    {everyKind, everyKindRead},
    {"\uFEFF" + everyKind, everyKindRead},
    {"\n\t " + everyKind, everyKindRead},
    {"\xFE\xFF" + utf16List(true), everyKindRead},
    {"\xFF\xFE" + utf16List(false), everyKindRead},
    {utf16List(true), everyKindRead},
    {utf16List(false), everyKindRead},
    {"\xFF\xFE\0\0"s + wide(everyKind, 4, false), everyKindRead},
    {"\0\0\xFE\xFF"s + wide(everyKind, 4, true), everyKindRead},
    {"\uFEFF" + xmlList("<string>é</string>", "UTF-16"), R"("é")"}, // the mark knows better
    {xmlList("<string>\x8E\xE9</string>", "macintosh"), R"("éÈ")"},
    {xmlList("<string>é</string>", "utf8"), R"("é")"},
    {"<plist><array></array></plist>", "[]"},
    {everyKind + "<rest of=\"a longer file\x01", everyKindRead},
    {xmlList("<!-- a --><dict><!-- b --><key>k<!-- c -->ey</key><?php?><string>"
             "<![CDATA[<&]]>]</string></dict>"),
     R"({"key": "<&]"})"},
    {xmlList("<dict><key k='1'>a</key><string xml:space='preserve'> b </string></dict>"),
     R"({"a": " b "})"},
    {"<!DOCTYPE plist [<!ELEMENT plist ANY><!ATTLIST plist version CDATA \"1.0\">]>"
     "<plist><true/></plist>",
     "true"},
    // What keyboards put into menus; the system itself writes it.
    {xmlList("<string>\x1B\x01</string>"), R"("??")"},
    {xmlList("<array><integer> +5\n</integer><integer>-0x10</integer><integer>0XfF</integer>"
             "<integer>-9223372036854775808</integer><integer>9223372036854775807</integer>"
             "<integer>007</integer></array>"),
     "[5, -16, 255, -9223372036854775808, 9223372036854775807, 7]"},
    {xmlList("<array><integer>18446744073709551615</integer><integer>-9223372036854775809"
             "</integer><integer>0x123456789abcdef01</integer><real>1e999</real></array>"),
     "[?, ?, ?, ?]"},
    {xmlList("<array><real> 1.5 </real><real>+2</real><real>1E3</real><real>.5</real>"
             "<real>-Infinity</real><real>nan</real></array>"),
     "[1.5, 2, 1000, 0.5, -inf, nan]"},
    {xmlList("<array><date>2026-11-22Z</date><date> 2026-11-22T12:30Z\n</date>"
             "<date>0001-01-01T00:00:00Z</date><date>9999-12-31T23:59:59Z</date>"
             "<date>2016-12-31T23:59:60Z</date><date>2024-02-29T00:00:00Z</date></array>"),
     "[@1795305600000000, @1795350600000000, @-62135596800000000, @253402300799000000, "
     "@1483228800000000, @1709164800000000]"},
    {xmlList("<array><data/><data>QQ==</data><data>QUI</data><data>Q\xC2\xA0UJD</data></array>"),
     "[<>, <41>, <4142>, <414243>]"},
};

const std::vector<Sample> unsoundXML{
    {"<p", "unclosed token (line 1, column 1)"},
    {"<plist></plist>", "there is no value in it (line 1, column 8)"},
    {"\n\n<?xml version='1.0'?>\n<plist>\n  <wrong/></plist>", "“wrong” (line 5, column 3)"},
    {everyKind.substr(0, everyKind.size() - 2), "unclosed token (line 16, column 1)"},
    {xmlList("<true/><true/>"), "“true” is one value too many"},
    {xmlList("<key>a</key>"), "“key” does not belong here"},
    {xmlList("<dict><string>a</string></dict>"), "“string” does not belong here"},
    {xmlList("<dict><key>a</key><key>b</key></dict>"), "“key” does not belong here"},
    {xmlList("<dict><key>a</key></dict>"), "a key without a value"},
    {xmlList("<dict><key>a</key>loose\x1B<true/></dict>"), "“loose?” stands outside a value"},
    {xmlList("<string>a<b/></string>"), "unknown element “b”"},
    {xmlList("<string>a<true/></string>"), "“true” stands inside a simple value"},
    {xmlList("<array><true></array></true>"), "mismatched tag"},
    {xmlList("<true>yes</true>"), "“yes” in a truth value"},
    {xmlList("<string>&nbsp;</string>"), "unknown entity “nbsp”"},
    {"<?xml version='1.0' encoding='UTF-16'?><dict/>", "encoding"},
    {"<!DOCTYPE p [<!ENTITY e 'x'>]><plist><string>&e;</string></plist>", "declares entities"},
    {"<!DOCTYPE p [<!ENTITY % e SYSTEM 'file:///etc/passwd'> %e;]><plist/>", "declares entities"},
};

TEST(PropertyList, rejectsNumbersAndDatesThatAreNone) {
    const std::pair<std::string_view, std::string> cases[] = {
        {"integer", "| |-|+|1.5|1e3|0x|0xg|--1|+-1|1 2|ten|٣"},
        {"real", "| |-|+-1|1,5|1.5.0|0x10|e5|one|1 2"},
        {"date", "|2026|2026-11|2026-11-22|2026-11-22T12:30:00|2026-11-22T12:30:00+01:00|"
                 "2026-13-01T00:00:00Z|2026-02-29T00:00:00Z|2026-11-00T00:00:00Z|"
                 "2026-11-22T25:00:00Z|2026-11-22T12:60:00Z|2026-11-22T12:30:61Z|"
                 "2026-11-22T12:30:00.5Z|2026-11-22 12:30:00Z|2026-1-22T12:30:00Z|"
                 "2026-11-22T12:-3:00Z|99999-01-01T00:00:00Z|12-11T00:00:00Z|Z|yesterday"},
    };
    for (const auto &[element, texts] : cases) {
        std::istringstream all(texts);
        for (std::string text; std::getline(all, text, '|');) {
            const auto bytes = xmlList(fmt::format("<{0}>{1}</{0}>", element, text));
            EXPECT_EQ(failure(bytes).code(), PlatformError::propertyListReadCorrupt) << bytes;
        }
    }
}

const std::vector<Sample> soundText{
    {R"({ a = b; "c d" = (1, 'e"f', "g\"h",); "" = {}; n.n/m:o-p_$ = <00 fF 12>; })",
     R"({"a": "b", "c d": ["1", "e"f", "g"h"], "": {}, "n.n/m:o-p_$": <00ff12>})"},
    {"// strings file\n\"key\" = \"value\";\n/* of\nmany */ alone;\rb = (x); // end",
     R"({"key": "value", "alone": "alone", "b": ["x"]})"},
    {"\xFF\xFE" + wide("\"ä\" = \"😀\";", 2, false), R"({"ä": "😀"})"},
    {"\xFE\xFF" + wide("\"ä\" = \"😀\";", 2, true), R"({"ä": "😀"})"},
    {"\uFEFF{\u2028a\u2029=\vb\f;}", R"({"a": "b"})"},
    {R"("\a\b\f\n\r\t\v\\\"\'\q\é")", "\"\a\b\f\n\r\t\v\\\"'qé\""},
    {R"("\101\1012\7x\200\267\377\400")", "\"AA2\ax\u00A0•\uFFFD\0\""s},
    {R"("\U00e9\Ue9x\U\Ud83d\Ude00\Ud83dx\Ude00\U12345")", "\"ééx\0😀\uFFFDx\uFFFD\u12345\""s},
    {" 'it' ", R"("it")"},
    {"(a, (b, {}), <>)", R"(["a", ["b", {}], <>])"},
    {" \n// nothing\n", "{}"},
    {"<01 \n 23>", "<0123>"}, // unlike XML
};

const std::vector<Sample> unsoundText{
    {"hello world", "“=” or “;” expected after a key (line 1)"},
    {"{ a = b }", "“;” expected (line 1)"},
    {"{\na = b;\n", "a dictionary without an end (line 3)"},
    {"{ a = ; }", "a value expected"},
    {"{ a = b;; }", "a key expected"},
    {"a = b", "a dictionary without an end"},
    {"a = b; }", "a key expected"},
    {"(a b)", "“,” or “)” expected"},
    {"(a,,b)", "a value expected"},
    {"(a", "an array without an end"},
    {"(a,", "cut off"},
    {"{} {}", "more after the end of the list"},
    {"(<0g>)", "not pairs of hexadecimal digits"},
    {"<012>", "not pairs of hexadecimal digits"},
    {"\"a", "without its closing quote"},
    {"\"a\\", "without its closing quote"},
    {"/* a", "a comment without an end"},
    {"a = \xE9;", "neither XML, nor binary, nor text in UTF-8"},
};

const std::string key = "\x51k"; // the text "k"

const std::vector<Sample> soundBinary{
    {binaryList({"\xD2\1\2\3\4", "\x51z", "\x51y", "\x08", "\x09"}), R"({"z": false, "y": true})"},
    {binaryList({"\xA3\1\2\3", "\0"s, "\x0F", "\xA0"}), "[null, <>, []]"},
    {binaryList({"\xC2\1\1", "\x10\x07"}), "[7, 7]"}, // a set of one shared object, said twice
    {binaryList({"\xA6\1\2\3\4\5\6", "\x10\xFF", "\x11\xFF\xFF", "\x12\xFF\xFF\xFF\xFF",
                 "\x13" + bigEndian(UINT64_MAX, 8), "\x13" + bigEndian(1ULL << 63U, 8),
                 "\x14" + bigEndian(0, 8) + bigEndian(5, 8)}),
     "[255, 65535, 4294967295, -1, -9223372036854775808, 5]"},
    {binaryList({"\xA2\1\2", "\x14" + bigEndian(0, 8) + bigEndian(1ULL << 63U, 8),
                 "\x14" + bigEndian(UINT64_MAX, 8) + bigEndian(UINT64_MAX, 8)}),
     "[?, -1]"},
    {binaryList({"\xA2\1\2", "\x22" + bigEndian(0x3FC00000, 4),
                 "\x23" + bigEndian(0xBFE0000000000000, 8)}),
     "[1.5, -0.5]"},
    {binaryList({"\xA3\1\2\3", "\x33" + bigEndian(0, 8), // before, at and beyond all dates
                 "\x33" + bigEndian(0xBFE0000000000000, 8),
                 "\x33" + bigEndian(0x7FF8000000000000, 8)}),
     "[@978307200000000, @978307199500000, @?]"},
    {binaryList({"\xA3\1\2\3", "\x80\x07", "\x87" + bigEndian(UINT64_MAX, 8),
                 "\x8F" + bigEndian(0, 8) + bigEndian(9, 8)}),
     "[uid 7, uid 18446744073709551615, uid 9]"},
    {binaryList({"\xA4\1\2\3\4", "\x5F\x10\x11" + std::string(17, 'a'), "\x40", "\x42\0\xFF"s,
                 "\x4F\x11\0\x01x"s}),
     R"(["aaaaaaaaaaaaaaaaa", <>, <00ff>, <78>])"},
    {binaryList({"\xA3\1\2\3", "\x60", "\x63" + wide("é😀", 2, true), "\x61\xD8\x3D"}),
     "[\"\", \"é😀\", \"\uFFFD\"]"},
    {binaryList({"\xD1\0\1\0\2"s, key, "\xAF\x12\0\0\0\1\0\1"s}, 2), R"({"k": ["k"]})"},
    {replaced(binaryList({"\xD0"}), "bplist00", "bplist07"), "{}"},
};

std::string withTrailer(std::size_t fromEnd, const std::string &bytes) {
    auto list = binaryList({"\xD0"});
    return list.replace(list.size() - fromEnd, bytes.size(), bytes);
}

const std::vector<Sample> unsoundBinary{
    {"bplist00", "cut off (at byte 8)"},
    {"bplist00" + std::string(32, '\0'), "a trailer that does not match the file"},
    {withTrailer(26, "\0"s), "a trailer that does not match the file"}, // offset size
    {withTrailer(24, bigEndian(1ULL << 61U, 8)), "a trailer that does not match the file"}, // count
    {withTrailer(16, bigEndian(1, 8)), "a trailer that does not match the file"},           // top
    {withTrailer(8, bigEndian(UINT64_MAX, 8)), "a trailer that does not match the file"},   // table
    {"bplist00\xD0" + binaryEnd(9, {1U << 30U}, 1), "an object beyond the end (at byte 9)"},
    {binaryList({"\xA1\0"s}), "an object that contains itself"},
    {binaryList({"\xD1\0\1"s, "\x09"}), "an object that contains itself"}, // as its own key
    {binaryList({"\xA1\1"}), "a reference to no object (at byte 9)"},
    {binaryList({"\xD1\1\1", "\x09"}), "a key that is no text"},
    {binaryList({"\xAF\x13"s + bigEndian(UINT64_MAX, 8)}), "a container that reaches beyond"},
    {binaryList({"\xDF\x13"s + bigEndian(1ULL << 63U, 8)}), "a container that reaches beyond"},
    {binaryList({"\x4F\x13"s + bigEndian(UINT64_MAX, 8)}), "a value that reaches beyond the end"},
    {binaryList({"\x6F\x13"s + bigEndian(1ULL << 63U, 8)}), "a value that reaches beyond the end"},
    {binaryList({"\x4F\x53"}), "a length that is no integer"},
    {binaryList({"\x51\xE9"}), "an ASCII text with other characters"},
    {binaryList({"\x8F" + bigEndian(1, 8) + bigEndian(0, 8)}), "a reference beyond 64 bits"},
    {binaryList({"\x70"}), "an object of unknown kind 0x70 (at byte 8)"},
    {binaryList({"\x24" + std::string(16, '\0')}), "an object of unknown kind 0x24"},
};

struct Format {
    std::string_view name;
    const std::vector<Sample> &sound;
    const std::vector<Sample> &unsound;
};
const Format formats[] = {
    {"XML", soundXML, unsoundXML},
    {"text", soundText, unsoundText},
    {"binary", soundBinary, unsoundBinary},
};

TEST(PropertyList, readsWhatIsSoundInEveryFormat) {
    for (const auto &format : formats) {
        for (const auto &[bytes, expected] : format.sound) {
            EXPECT_EQ(failure(bytes).message(), "read as " + expected) << bytes;
        }
    }
}

TEST(PropertyList, saysWhatIsWrongAndWhere) {
    for (const auto &format : formats) {
        for (const auto &[bytes, problem] : format.unsound) {
            const auto error = failure(bytes);
            EXPECT_EQ(error.code(), PlatformError::propertyListReadCorrupt) << bytes;
            EXPECT_THAT(error.message(),
                        AllOf(StartsWith("not a property list: "), HasSubstr(problem)))
                << format.name << ": " << bytes;
        }
    }
    EXPECT_EQ(failure("").code(), PlatformError::propertyListReadCorrupt);
    constexpr int unsupported = PlatformError::featureUnsupported;
    EXPECT_EQ(failure(xmlList("<dict/>", "x-unheard-of")).code(), unsupported);
    EXPECT_EQ(failure(xmlList("<dict/>", "Shift_JIS")).code(), unsupported);
    EXPECT_EQ(failure(xmlList("<dict/>", std::string(100'000, 'x'))).code(), unsupported);
    const std::string tooLong(PropertyList::maximumSize + 1, '<');
    EXPECT_EQ(failure(tooLong).code(), PlatformError::fileReadTooLarge);
}

TEST(PropertyList, givesOnlyWhatIsThere) {
    auto list =
        std::optional(PropertyList::parse("{ a = 1; b = (x, <00>); a = 2; \"nul\\000\" = y; }"));
    const auto b = list->find("b").value();
    EXPECT_EQ(list->find("a")->asString(), "2"); // the last one counts
    EXPECT_FALSE(list->find("A") || list->find("nul") || b.find("x"));
    EXPECT_TRUE(list->find("nul\0"s));
    EXPECT_FALSE(b.asString() || b.at(0).asData() || b.at(0).asInteger() || b.at(1).asString());
    EXPECT_THROW(b.at(2), std::out_of_range);
    EXPECT_THROW(b.key(0), std::out_of_range);
    EXPECT_THROW(list->key(4), std::out_of_range);
    list.reset();
    EXPECT_EQ(b.at(0).asString(), "x"); // one value keeps all of them
}

} // namespace
} // namespace klarbox::test
