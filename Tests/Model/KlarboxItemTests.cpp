#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"
#include "KlarboxKit/Safety/SafetyViolation.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

const auto target = KlarboxTarget::item(FileURL("/a"));

TEST(KlarboxItem, startsOutSelectedWhenSafeUnlessSaidOtherwise) {
    const auto selected = [](SafetyTier tier) {
        return KlarboxItem{.id = "x", .title = "x", .target = target, .tier = tier}
            .isSelectedByDefault;
    };
    EXPECT_TRUE(selected(SafetyTier::safe));
    EXPECT_FALSE(selected(SafetyTier::leftover));
    EXPECT_FALSE(selected(SafetyTier::review));
    const KlarboxItem unselected{.id = "x",
                                 .title = "x",
                                 .target = target,
                                 .tier = SafetyTier::safe,
                                 .isSelectedByDefault = false};
    EXPECT_FALSE(unselected.isSelectedByDefault);
    const KlarboxItem risky{.id = "x",
                            .title = "x",
                            .target = target,
                            .tier = SafetyTier::review,
                            .isSelectedByDefault = true};
    EXPECT_TRUE(risky.isSelectedByDefault);
}

TEST(KlarboxTarget, tellsTheLocationsItActsOn) {
    const FileURL a("/a");
    const FileURL b("/b");
    const CommandAction brew{.executable = a, .arguments = {"autoremove"}};
    const struct {
        KlarboxTarget target;
        std::vector<FileURL> paths;
    } cases[] = {
        {KlarboxTarget::item(a), {a}},
        {KlarboxTarget::contents(a), {a}},
        {KlarboxTarget::items({b, a, b}), {b, a, b}},
        {KlarboxTarget::items({}), {}},
        {KlarboxTarget::command(brew), {}},
    };
    for (const auto &[each, paths] : cases) {
        EXPECT_EQ(each.paths(), paths);
    }
    EXPECT_NE(KlarboxTarget::item(a), KlarboxTarget::contents(a));
    EXPECT_NE(KlarboxTarget::item(a), KlarboxTarget::items({a}));
}

TEST(RawValues, acceptExactlyTheirOwnSpelling) {
    EXPECT_EQ(fromRawValue<SafetyTier>(2), SafetyTier::review);
    EXPECT_EQ(fromRawValue<SafetyTier>(3), std::nullopt);
    EXPECT_EQ(fromRawValue<SafetyTier>(-1), std::nullopt);
    EXPECT_LT(SafetyTier::leftover, SafetyTier::review);
    EXPECT_EQ(fromRawValue<ScanSection>(std::string_view("leftover")), std::nullopt);
    EXPECT_EQ(fromRawValue<ScanSection>(std::string_view("leftovers")), ScanSection::leftovers);
    EXPECT_EQ(fromRawValue<SafetyViolation>(std::string_view("NotFound")), std::nullopt);
}

TEST(CategoryScan, sumsTheSizesOfAllItems) {
    CategoryScan scan{.info = {"logs", "", "", "", ScanSection::system}};
    EXPECT_EQ(scan.totalSize(), 0);
    const auto add = [&](std::int64_t size, bool selected) {
        scan.items.push_back({.id = "logs:x",
                              .title = "x",
                              .target = target,
                              .size = size,
                              .tier = SafetyTier::safe,
                              .isSelectedByDefault = selected});
    };
    add(10, true);
    add(5, false);
    EXPECT_EQ(scan.totalSize(), 15);
    add(INT64_MAX, true);
    EXPECT_EQ(scan.totalSize(), INT64_MAX);
}

} // namespace
} // namespace klarbox::test
