#include "KlarboxKit/Foundation/Text.hpp"

#include <tuple>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

TEST(Text, foldsLetterCaseAndComposition) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"Library/CACHES", "library/caches"},
        {"E\u0301TUDE", "étude"},         // decomposed, as a Mac's old file system stored it
        {"\u212B\u212A", "åk"},           // Ångström and Kelvin signs
        {"STRASSE ẞ Σ", "strasse ß σ"},   //
        {"I\u0307 İ", "i\u0307 i\u0307"}, // one letter whose lower case is two characters
        {"J\u030c", "\u01f0"},            // whose lower case is composed otherwise
        {"ǅ Ⅷ Ⓚ", "ǆ ⅷ ⓚ"},               //
        {"Caf\xE9 É", "caf\xE9 É"},       // not UTF-8: nothing but ASCII is touched
    };
    for (const auto &[text, folded] : cases) {
        EXPECT_EQ(Text::lowercased(text), folded);
        EXPECT_EQ(Text::lowercased(folded), folded);
    }
    for (const auto &[name, another] : {std::pair("Deſktop", "DESKTOP"),
                                        {"straße", "STRASSE"},
                                        {"ὁδός", "ὉΔΌΣ"},
                                        {"Cafe\u0301", "CAFÉ"},
                                        {".g\u200cit", ".git"}}) {
        EXPECT_EQ(Text::caseFolded(name), Text::caseFolded(another));
    }
    EXPECT_NE(Text::caseFolded("\xE9"), Text::caseFolded("\xE8"));
    EXPECT_NE(Text::lowercased("\xE9"), Text::lowercased("\xE8"));
    EXPECT_THAT(Text::foldedPathComponents("//Users/ÄNN/./x"),
                ElementsAre("users", "änn", ".", "x"));
}

TEST(Text, replacesEachBrokenSequenceOnce) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"sound é😀", "sound é😀"},
        {"\x80|\xFF|\xC3", "\uFFFD|\uFFFD|\uFFFD"},
        {"\xE2\x82|\xF0\x9F\x98", "\uFFFD|\uFFFD"},                   // cut off
        {"\xC0\x80|\xE0\x80\x80", "\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD"}, // overlong
        {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},                       // half a surrogate pair
        {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},             // beyond Unicode
        {"\xE2\x82\xE2\x82\xAC", "\uFFFD€"},
    };
    for (const auto &[bytes, repaired] : cases) {
        EXPECT_EQ(Text::repairedUTF8(bytes), repaired);
        EXPECT_EQ(Text::isValidUTF8(bytes), bytes == repaired);
    }
}

TEST(Text, splitsAndTrimsAtEveryKindOfSpace) {
    EXPECT_THAT(Text::lines("a\nb\r\n\v c\fd\u0085e\u2028\u2029f\xFF\n"),
                ElementsAreArray({"a", "b", " c", "d", "e", "f\xFF"}));
    EXPECT_THAT(Text::lines("\n\n"), ElementsAre());
    EXPECT_EQ(Text::trimmed("\u00A0\t a\u3000b \u2003\r\n"), "a\u3000b");
    EXPECT_EQ(Text::trimmed(" \u2028"), "");
    EXPECT_EQ(Text::trimmed("\x85 a \xC2"), "\x85 a \xC2"); // bytes of a character are no space
}

TEST(Text, showsNamesThatCannotMisleadATerminal) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"a\nb\tc\rd", "a\\nb\\tc\\rd"},
        {"\x1b[2J\x7f\u009b", "\\x1b[2J\\x7f\\u009b"},
        {"gnp.\u202Eexe\u200B\uFEFF\u2028", "gnp.\\u202eexe\\u200b\\ufeff\\u2028"},
        {"\U000E0041", "\\U000e0041"},
        {"👨‍👩‍👧 e\u0301\u00A0", "👨‍👩‍👧 e\u0301\u00A0"},
        {"\x9b|caf\xE9|\xE2\x82|\uFFFD", "\\x9b|caf\\xe9|\\xe2\\x82|\uFFFD"},
    };
    for (const auto &[text, shown] : cases) {
        EXPECT_EQ(Text::visible(text), shown);
        EXPECT_EQ(Text::escaped(text), shown);
    }
    EXPECT_EQ(Text::visible("a\\xff\\"), "a\\xff\\");
    EXPECT_EQ(Text::escaped("a\\xff\\"), "a\\\\xff\\\\");
}

TEST(Text, cutsTheMiddleToColumns) {
    const std::tuple<std::string_view, std::size_t, std::string_view> cases[] = {
        {"abcdef", 6, "abcdef"},
        {"abcdefg", 6, "abc…fg"},
        {"abcdefg", 1, "…"},
        {"日本語版", 7, "日…版"},
        {"日本語版", 8, "日本語版"},
        {"aaae\u0301bbbb", 7, "aaa…bbb"},
        {"ae\u0301cdefg", 4, "ae\u0301…g"},
        {"abcde\u0301f", 4, "ab…f"}, // no mark without its letter
    };
    for (const auto &[text, width, cut] : cases) {
        EXPECT_EQ(Text::middleTruncated(text, width), cut) << text << " " << width;
    }
}

} // namespace
} // namespace klarbox::test
