#include "KlarboxKit/Model/CategoryScan.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

KlarboxItem item(std::int64_t size) {
    const auto target = KlarboxTarget::item(FileURL("/a"));
    return {.id = "x", .title = "x", .target = target, .size = size, .tier = SafetyTier::review};
}

TEST(CategoryScan, sumsTheSizesOfAllItemsWithoutOverflow) {
    CategoryScan scan{.info = {"logs", "", "", "", ScanSection::system}};
    EXPECT_EQ(scan.totalSize(), 0);
    scan.items = {item(10), item(5)};
    EXPECT_EQ(scan.totalSize(), 15);
    scan.items.push_back(item(INT64_MAX));
    EXPECT_EQ(scan.totalSize(), INT64_MAX);
}

} // namespace
} // namespace klarbox::test
