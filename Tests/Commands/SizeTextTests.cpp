#include "KlarboxKit/Commands/SizeText.hpp"

#include <string>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(SizeText, readsSizesAsToolsPrintThemAndNothingElse) {
    const struct {
        std::string text;
        double base;
        std::int64_t expected;
    } cases[] = {
        {"1.1GB", 1000, 1'100'000'000},
        {"512 kB", 1024, 524'288},
        {" \t 3.5 MB \n", 1000, 3'500'000},
        {"\u00A07 k B\u2028", 1000, 7000},
        {"0B", 1000, 0},
        {"2gb", 1024, std::int64_t{2} << 30},
        {"1TB", 1000, 1'000'000'000'000},
        {"1.9999B", 1000, 1},
        {".5kB", 1000, 500},
        {"5.kB", 1000, 5000},
        {"+5B", 1000, 5},
        {"-1.5B", 1000, -1},
        {"- 5B", 1000, -5}, // blanks go before anything is read
        {"8388607TB", 1024, std::int64_t{8388607} << 40},
        {"-8388608TB", 1024, INT64_MIN},
    };
    for (const auto &[text, base, expected] : cases) {
        EXPECT_EQ(SizeText::bytes(text, base), expected) << text;
    }
    for (const std::string text : {"",           " ",        "12",
                                   "GB",         "1.5KiB",   "1K",
                                   "1 BYTES",    "1PB",      "1e30TB",
                                   "1,5GB",      "1.5.0GB",  "+-5B",
                                   "infB",       "nanB",     "0x10B",
                                   "1.2\tGB",    "12µB",     "٣GB",
                                   "1GB (40%)",  "\xFF\xFE", "1\u212AB" /* the Kelvin sign */,
                                   "\x1b[1m1GB", "8388608TB" /* 2^63 */}) {
        EXPECT_EQ(SizeText::bytes(text, 1024), std::nullopt) << text;
    }
    EXPECT_EQ(SizeText::bytes(std::string(400, '9') + "B", 1000), std::nullopt);
}

} // namespace
} // namespace klarbox::test
