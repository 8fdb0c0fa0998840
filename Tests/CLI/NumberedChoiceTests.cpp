#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/NumberedChoice.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using Numbers = std::vector<std::size_t>;

TEST(NumberedChoice, isReadAsAPersonMeansIt) {
    const std::pair<const char *, Numbers> cases[] = {
        {"", {}},
        {"  none ", {}},
        {"all", {1, 2, 3, 4, 5}},
        {"default", {2, 4}},
        {"3", {3}},
        {"5, 1-2 2", {1, 2, 5}},
        {"2-2,", {2}},
    };
    for (const auto &[answer, numbers] : cases) {
        EXPECT_EQ(NumberedChoice::parseAnswer(answer, 5, {2, 4}), numbers) << answer;
    }
    for (const auto *answer : {"0", "6", "4-2", "1-", "-3", "1 x", "99999999999999999999", "yes"}) {
        EXPECT_EQ(NumberedChoice::parseAnswer(answer, 5, {2, 4}), std::nullopt) << answer;
    }
}

TEST(NumberedChoice, isByTheTableWhichListsTheLargestFirst) {
    CategoryScan scan{.info = {"logs", "", "", "", {}}};
    const std::pair<const char *, int> items[] = {{"small", 1}, {"big", 9}, {"two", 2}};
    for (const auto &[id, size] : items) {
        scan.items.push_back({.id = id,
                              .title = id,
                              .target = KlarboxTarget::item(FileURL("/x")),
                              .size = size,
                              .tier = SafetyTier::safe});
    }
    const auto chosen = NumberedChoice::selectNumbers({scan}, {1, 3});
    ASSERT_EQ(chosen.front().items.size(), 2U);
    EXPECT_EQ(chosen.front().items[0].id, "small");
    EXPECT_EQ(chosen.front().items[1].id, "big");
}

TEST(DisplayText, sizesAreDecimalAndCarryIntoTheNextUnit) {
    const std::pair<std::int64_t, const char *> cases[] = {
        {0, "0 B"},
        {999, "999 B"},
        {1000, "1.0 kB"},
        {999'949, "999.9 kB"},
        {999'960, "1.0 MB"},
        {999'999'999, "1.00 GB"},
        {1'240'000'000, "1.24 GB"},
        {INT64_MAX, "9.22 EB"},
    };
    for (const auto &[bytes, text] : cases) {
        EXPECT_EQ(DisplayText::size(bytes), text);
    }
}

} // namespace
} // namespace klarbox::test
