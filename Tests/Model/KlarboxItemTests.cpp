#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Safety/SafetyViolation.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

KlarboxItem item(std::int64_t size, SafetyTier tier = SafetyTier::safe) {
    const auto target = KlarboxTarget::item(FileURL("/a"));
    return {.id = "x", .title = "x", .target = target, .size = size, .tier = tier};
}

TEST(KlarboxItem, startsOutSelectedOnlyWhenSafe) {
    for (const auto tier : allCases<SafetyTier>()) {
        EXPECT_EQ(item(1, tier).isSelectedByDefault, tier == SafetyTier::safe);
    }
}

TEST(RawValues, acceptExactlyTheirOwnSpelling) {
    EXPECT_EQ(fromRawValue<SafetyTier>(2), SafetyTier::review);
    EXPECT_EQ(fromRawValue<SafetyTier>(3), std::nullopt);
    EXPECT_EQ(fromRawValue<SafetyTier>(-1), std::nullopt);
    EXPECT_EQ(fromRawValue<ScanSection>(std::string_view("leftover")), std::nullopt);
    EXPECT_EQ(fromRawValue<ScanSection>(std::string_view("leftovers")), ScanSection::leftovers);
    EXPECT_EQ(fromRawValue<SafetyViolation>(std::string_view("NotFound")), std::nullopt);
}

TEST(CategoryScan, sumsTheSizesOfAllItemsWithoutOverflow) {
    CategoryScan scan{.info = {"logs", "", "", "", ScanSection::system}};
    EXPECT_EQ(scan.totalSize(), 0);
    scan.items = {item(10), item(5, SafetyTier::review)};
    EXPECT_EQ(scan.totalSize(), 15);
    scan.items.push_back(item(INT64_MAX));
    EXPECT_EQ(scan.totalSize(), INT64_MAX);
}

} // namespace
} // namespace klarbox::test
