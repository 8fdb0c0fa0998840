#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/ScanTable.hpp"
#include "KlarboxCLI/Selection.hpp"
#include "KlarboxCLI/UsageError.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using Numbers = std::vector<std::size_t>;

KlarboxItem item(std::string id, std::int64_t size, SafetyTier tier) {
    return {.id = id,
            .title = id,
            .target = KlarboxTarget::item(FileURL("/x/" + id)),
            .size = size,
            .tier = tier};
}

std::vector<CategoryScan> scans() {
    using enum SafetyTier;
    return {{.info = {"logs", "", "", "", {}},
             .items = {item("small", 1, safe), item("big", 9, review), item("bad-\xe9", 3, safe),
                       item("bad-\xe8", 3, safe)}}};
}

std::vector<std::string> ids(const std::vector<CategoryScan> &scans) {
    std::vector<std::string> found;
    for (const auto &selected : Selection::items(scans)) {
        found.push_back(selected.id);
    }
    return found;
}

TEST(Selection, answersAreReadAsAPersonMeansThem) {
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
        EXPECT_EQ(Selection::parseAnswer(answer, 5, {2, 4}), numbers) << answer;
    }
    for (const auto *answer : {"0", "6", "4-2", "1-", "-3", "1 x", "99999999999999999999", "yes"}) {
        EXPECT_EQ(Selection::parseAnswer(answer, 5, {2, 4}), std::nullopt) << answer;
    }
}

TEST(Selection, takesExactlyWhatIsNamedOrNothing) {
    const auto none = [](const KlarboxItem &) { return false; };
    const auto marked = [](const KlarboxItem &item) { return item.isSelectedByDefault; };
    EXPECT_THAT(ids(Selection::select(scans(), none, {"big"})), ElementsAre("big"));
    EXPECT_THAT(ids(Selection::select(scans(), marked, {"big"})),
                ElementsAre("small", "big", "bad-\xe9", "bad-\xe8"));
    EXPECT_THROW(Selection::select(scans(), marked, {"big", "gone"}), UsageError);
    // Two items are shown alike; guessing which is meant could remove the wrong one.
    EXPECT_THROW(Selection::select(scans(), none, {"bad-\uFFFD"}), UsageError);
    EXPECT_THAT(ids(Selection::select(scans(), none, {"bad-\xe8"})), ElementsAre("bad-\xe8"));
    EXPECT_THROW(Selection::select(scans(), none, {"bad-\xe7"}), UsageError);
    // Numbers are those of the table, which lists the largest first.
    EXPECT_THAT(ids(Selection::selectNumbers(scans(), {1, 4})), ElementsAre("small", "big"));
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
