#include "KlarboxKit/Platform/ChildProcess.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Platform/PropertyList.hpp"

#include "Tests/Platform/PropertyListSamples.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <sstream>
#include <stdexcept>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::HasSubstr;
using testing::StartsWith;

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
    {xmlList("<string>\xE9</string>", "ISO-8859-1"), R"("é")"},
    {xmlList("<string>\x8E\xE9</string>", "macintosh"), R"("éÈ")"},
    {xmlList("<string>é</string>", "utf8"), R"("é")"},
    {xmlList("<string>\x80</string>", "windows-1252"), R"("€")"},
    {"<dict/>", "{}"},
    {"<plist><array></array></plist>", "[]"},
    {everyKind + "<rest of=\"a longer file\x01", everyKindRead},
    {everyKind + std::string(4096, '\0'), everyKindRead},
    {xmlList("<!-- a --><dict><!-- b --><key>k<!-- c -->ey</key><?php?><string>"
             "<![CDATA[<&]]>]</string></dict>"),
     R"({"key": "<&]"})"},
    {xmlList("<dict><key k='1'>a</key><string xml:space='preserve'> b </string></dict>"),
     R"({"a": " b "})"},
    {"<!DOCTYPE plist [<!ELEMENT plist ANY><!ATTLIST plist version CDATA \"1.0\">]>"
     "<plist><true/></plist>",
     "true"},
    {xmlList("<dict><key>a</key><true/><key>a</key><false/></dict>"), R"({"a": true, "a": false})"},
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
    {xmlList("<plist/>"), "“plist” is one value too many"},
    {xmlList("<key>a</key>"), "“key” does not belong here"},
    {xmlList("<dict><string>a</string></dict>"), "“string” does not belong here"},
    {xmlList("<dict><key>a</key><key>b</key></dict>"), "“key” does not belong here"},
    {xmlList("<dict><key>a</key></dict>"), "a key without a value"},
    {xmlList("<dict><key>a</key>loose\x1B<true/></dict>"), "“loose?” stands outside a value"},
    {xmlList("<string>a<b/></string>"), "unknown element “b”"},
    {xmlList("<string>a<true/></string>"), "“true” stands inside a simple value"},
    {xmlList("<Dict/>"), "unknown element “Dict”"},
    {xmlList("<array><true></array></true>"), "mismatched tag"},
    {xmlList("<true>yes</true>"), "“yes” in a truth value"},
    {xmlList("<string>&nbsp;</string>"), "unknown entity “nbsp”"},
    {xmlList("<string>\xE9</string>"), "not well-formed"},
    {xmlList("<string>&#xD800;</string>"), "invalid character"},
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
            EXPECT_THROW(PropertyList::parse(bytes), PlatformError) << element << " " << text;
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
    {"\"line\nbreak\"", "\"line\nbreak\""},
    {"hello", R"("hello")"},
    {" 'it' ", R"("it")"},
    {"(a, (b, {}), <>)", R"(["a", ["b", {}], <>])"},
    {" \n// nothing\n", "{}"},
    {"<>", "<>"},
    {"<01 \n 23>", "<0123>"}, // unlike XML
    {"a = 1; a = 2;", R"({"a": "1", "a": "2"})"},
};

const std::vector<Sample> unsoundText{
    {"hello world", "“=” or “;” expected after a key (line 1)"},
    {"{ a = b }", "“;” expected (line 1)"},
    {"{\na = b;\n", "a dictionary without an end (line 3)"},
    {"{ a = ; }", "a value expected"},
    {"{ a = b;; }", "a key expected"},
    {"{ (a) = b; }", "a key expected"},
    {"a = b", "a dictionary without an end"},
    {"a = b; }", "a key expected"},
    {"a = {b = c;", "a dictionary without an end"},
    {"(a b)", "“,” or “)” expected"},
    {"(a,,b)", "a value expected"},
    {"(a", "an array without an end"},
    {"(a,", "cut off"},
    {"{} {}", "more after the end of the list"},
    {"(<0g>)", "not pairs of hexadecimal digits"},
    {"<012>", "not pairs of hexadecimal digits"},
    {"<01", "not pairs of hexadecimal digits"},
    {"\"a", "without its closing quote"},
    {"\"a\\", "without its closing quote"},
    {"/* a", "a comment without an end"},
    {"%!PS", "a value expected"},
    {"\x1F\x8B\x08", "neither XML, nor binary, nor text in UTF-8"},
    {"a = \xE9;", "neither XML, nor binary, nor text in UTF-8"},
    {std::string(4096, '\0'), "a value expected"},
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
    {binaryList({"\xD2\1\1\2\3", key, "\x09", "\x08"}), R"({"k": true, "k": false})"},
};

std::string withTrailer(std::size_t fromEnd, const std::string &bytes) {
    auto list = binaryList({"\xD0"});
    return list.replace(list.size() - fromEnd, bytes.size(), bytes);
}

const std::vector<Sample> unsoundBinary{
    {"bplist00", "cut off (at byte 8)"},
    {"bplist00" + std::string(32, '\0'), "a trailer that does not match the file"},
    {withTrailer(26, "\0"s), "a trailer that does not match the file"}, // offset size
    {withTrailer(25, "\0"s), "a trailer that does not match the file"}, // reference
    {withTrailer(24, bigEndian(1ULL << 61U, 8)), "a trailer that does not match the file"}, // count
    {withTrailer(16, bigEndian(1, 8)), "a trailer that does not match the file"},           // top
    {withTrailer(8, bigEndian(UINT64_MAX, 8)), "a trailer that does not match the file"},   // table
    {"bplist00\xD0" + binaryEnd(9, {1U << 30U}, 1), "an object beyond the end (at byte 9)"},
    {binaryList({"\xA1\0"s}), "an object that contains itself"},
    {binaryList({"\xA1\1", "\xD1\2\0"s, key}), "an object that contains itself"},
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
    {binaryList({"\x15" + std::string(32, '\0')}), "an object of unknown kind 0x15"},
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
            EXPECT_NO_THROW(EXPECT_EQ(describe(PropertyList::parse(bytes)), expected) << bytes)
                << format.name << ": " << bytes;
        }
    }
}

TEST(PropertyList, saysWhatIsWrongAndWhere) {
    for (const auto &format : formats) {
        for (const auto &[bytes, problem] : format.unsound) {
            try {
                ADD_FAILURE() << format.name << ": " << bytes << "\nis read as "
                              << describe(PropertyList::parse(bytes));
            } catch (const PlatformError &error) {
                EXPECT_EQ(error.code(), PlatformError::propertyListReadCorrupt) << bytes;
                EXPECT_THAT(error.message(), StartsWith("not a property list: ")) << bytes;
                EXPECT_THAT(error.message(), HasSubstr(problem)) << format.name << ": " << bytes;
            }
        }
    }
    EXPECT_THROW(PropertyList::parse(""), PlatformError);
}

/// What a crash or a full disk leaves of a file.
TEST(PropertyList, isNotFooledByTruncatedFiles) {
    for (const auto &format : formats) {
        for (const auto &[bytes, expected] : format.sound) {
            for (std::size_t length = 0; length < bytes.size(); ++length) {
                try {
                    const auto read = PropertyList::parse(bytes.substr(0, length));
                    // White space alone is an empty list, and a text list's beginning may be one.
                    EXPECT_TRUE(read.kind() != PropertyList::Kind::dictionary ||
                                read.count() == 0 || describe(read) == expected ||
                                format.name == "text")
                        << format.name << ", " << length << " bytes of " << bytes;
                } catch (const PlatformError &error) {
                    EXPECT_EQ(error.code(), PlatformError::propertyListReadCorrupt) << bytes;
                }
            }
        }
    }
}

TEST(PropertyList, tellsWhatItCannotReadFromWhatIsDamaged) {
    const std::pair<std::string, int> cases[] = {
        {xmlList("<dict/>", "x-unheard-of"), PlatformError::featureUnsupported},
        {xmlList("<dict/>", "Shift_JIS"), PlatformError::featureUnsupported},
        {xmlList("<dict/>", std::string(100'000, 'x')), PlatformError::featureUnsupported},
        {std::string(PropertyList::maximumSize + 1, '<'), PlatformError::fileReadTooLarge},
    };
    for (const auto &[bytes, code] : cases) {
        try {
            PropertyList::parse(bytes);
            ADD_FAILURE() << bytes.substr(0, 200);
        } catch (const PlatformError &error) {
            EXPECT_EQ(error.code(), code) << bytes.substr(0, 200);
        }
    }
}

TEST(PropertyList, givesOnlyWhatIsThere) {
    auto list =
        std::optional(PropertyList::parse("{ a = 1; b = (x, <00>); a = 2; \"nul\\000\" = y; }"));
    const auto b = list->find("b").value();
    EXPECT_EQ(list->find("a")->asString(), "2");
    EXPECT_EQ(list->find("A"), std::nullopt);
    EXPECT_EQ(list->find("nul"), std::nullopt);
    EXPECT_TRUE(list->find("nul\0"s));
    EXPECT_EQ(b.find("x"), std::nullopt);
    EXPECT_EQ(b.asString(), std::nullopt);
    EXPECT_EQ(b.at(0).asData(), std::nullopt);
    EXPECT_EQ(b.at(0).asInteger(), std::nullopt);
    EXPECT_EQ(b.at(1).asString(), std::nullopt);
    EXPECT_EQ(b.at(0).count(), 0U);
    EXPECT_THROW(b.at(2), std::out_of_range);
    EXPECT_THROW(b.key(0), std::out_of_range);
    EXPECT_THROW(b.at(0).at(0), std::out_of_range);
    EXPECT_THROW(list->key(4), std::out_of_range);
    EXPECT_THROW(list->at(4), std::out_of_range);
    list.reset();
    EXPECT_EQ(b.at(0).asString(), "x"); // one value keeps all of them
}

/// Random lists as python3 writes them, and what it says of them; hexadecimal, because of line
/// breaks in texts.
constexpr std::string_view agreementScript = R"(
import datetime, plistlib, random, sys
random.seed(20261122)
def text():
    letters = 'aZ09 _-/.<&>"\'\\\n\té€😀\u202e\u00a0'
    return ''.join(random.choice(letters) for _ in range(random.choice((0, 1, 5, 14, 15, 16, 300))))
def value(depth, uids):
    kind = random.randrange(8 if depth > 4 else 11)
    if kind == 0: return text()
    if kind == 1: return random.choice((1, -1)) * random.getrandbits(random.randrange(64))
    if kind == 2: return 2 ** random.choice((7, 8, 15, 16, 31, 32, 63)) - random.randrange(2)
    if kind == 3: return random.choice((0.0, 0.1, -1e300, 5e-324, random.random() * 1e6))
    if kind == 4: return random.random() < 0.5
    if kind == 5: return datetime.datetime(random.randrange(1, 9999), 2, 28, 23, 59, random.randrange(60))
    if kind == 6: return random.randbytes(random.choice((0, 1, 14, 15, 70)))
    if kind == 7: return plistlib.UID(random.getrandbits(random.randrange(64))) if uids else text()
    if kind == 8: return [value(depth + 1, uids) for _ in range(random.choice((0, 1, 14, 15, 16)))]
    return {text() + str(i): value(depth + 1, uids) for i in range(random.choice((0, 1, 3, 15)))}
def describe(v):
    if isinstance(v, str): return '"' + v + '"'
    if isinstance(v, bool): return 'true' if v else 'false'
    if isinstance(v, int): return str(v) if v < 2 ** 63 else '?'
    if isinstance(v, float): return '%.17g' % v
    if isinstance(v, datetime.datetime):
        return '@%d' % ((v - datetime.datetime(1970, 1, 1)) // datetime.timedelta(microseconds=1))
    if isinstance(v, bytes): return '<' + v.hex() + '>'
    if isinstance(v, plistlib.UID): return 'uid %d' % v.data
    if isinstance(v, list): return '[' + ', '.join(map(describe, v)) + ']'
    return '{' + ', '.join('"' + k + '": ' + describe(w) for k, w in v.items()) + '}'
def show(v, format):
    said = plistlib.dumps(v, fmt=format, sort_keys=False)
    print(said.hex() or '-', describe(v).encode().hex())
for _ in range(100):
    show({'v': value(0, False)}, plistlib.FMT_XML)
    show({'v': value(0, True)}, plistlib.FMT_BINARY)
many = {'key %d' % i: i for i in range(70000)}
show(many, plistlib.FMT_XML)
show(many, plistlib.FMT_BINARY)
)";

std::string fromHexadecimal(std::string_view digits) {
    return std::string(PropertyList::parse(fmt::format("<{}>", digits)).asData().value());
}

TEST(PropertyList, agreesWithPythonOnRandomLists) {
    const FileURL python("/usr/bin/python3");
    if (!FileManager::isExecutableFile(python)) {
        GTEST_SKIP() << "needs python3";
    }
    const TemporaryTree tree{{"agreement.py", text(std::string(agreementScript))}};
    ChildProcess child(python, {(tree / "agreement.py").path()}, {{"PYTHONUTF8", "1"}});
    ASSERT_EQ(child.wait(250s, {}), 0) << child.output();
    std::istringstream lines(child.output());
    int count = 0;
    for (std::string bytes, expected; lines >> bytes >> expected; ++count) {
        bytes = fromHexadecimal(bytes);
        ASSERT_EQ(describe(PropertyList::parse(bytes)), fromHexadecimal(expected)) << bytes;
    }
    EXPECT_EQ(count, 202);
}

} // namespace
} // namespace klarbox::test
