#include "KlarboxApp/Clean/CleanSession.hpp"
#include "KlarboxApp/Clean/Selection.hpp"
#include "KlarboxApp/InputError.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;

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

TEST(Selection, takesExactlyWhatIsNamedOrNothing) {
    const auto none = [](const KlarboxItem &) { return false; };
    const auto marked = [](const KlarboxItem &item) { return item.isSelectedByDefault; };
    EXPECT_THAT(ids(Selection::select(scans(), none, {"big"})), ElementsAre("big"));
    EXPECT_THAT(ids(Selection::select(scans(), marked, {"big"})),
                ElementsAre("small", "big", "bad-\xe9", "bad-\xe8"));
    EXPECT_THROW(Selection::select(scans(), marked, {"big", "gone"}), InputError);
    // Two items are shown alike; guessing which is meant could remove the wrong one.
    EXPECT_THROW(Selection::select(scans(), none, {"bad-\uFFFD"}), InputError);
    EXPECT_THAT(ids(Selection::select(scans(), none, {"bad-\xe8"})), ElementsAre("bad-\xe8"));
    EXPECT_THROW(Selection::select(scans(), none, {"bad-\xe7"}), InputError);
}

Entry::Text settings(const std::vector<std::string> &excluded) {
    ScanSettings all;
    all.excludedPaths = excluded;
    return text(all.encoded());
}

TEST(CleanSession, emptiesTheTrashFirstAndLeavesWhatIsExcludedOrLeadsOut) {
    const std::string ann = "disk/Users/ann/";
    const TemporaryTree tree{
        {ann + ".Trash/old", bytes(5000)},
        {ann + "Library/Caches/app/x", bytes(5000)},
        {ann + "Library/Caches/kept/x", bytes(5000)},
        {ann + "Library/Logs", link("../../../../outside")},
        {"outside/log/x", bytes(5000)},
        {"none.json", settings({})},
        {"kept.json", settings({"~/Library/Caches/kept"})},
        {"environment.json", text(R"({"runningBundleIDs": [], "runningCommandLines": []})")},
    };
    const auto session = [&](const char *settings) {
        return ScanSession({.home = "",
                            .disk = (tree / "disk").path(),
                            .settingsFile = (tree / settings).path(),
                            .environmentFile = (tree / "environment.json").path(),
                            .minimumSize = 0,
                            .categories = {"user-caches", "logs", "trash"}});
    };
    const auto everything = Selection::items(session("none.json").scan({}, {}));
    ASSERT_EQ(everything.size(), 4U);
    const auto careful = session("kept.json");
    const CleanSession clean(careful,
                             CleanPlan(everything, RemovalMode::moveToTrash, careful.obstacles()));
    EXPECT_EQ(clean.plan().items.front().removalPolicy, RemovalPolicy::permanentOnly);
    EXPECT_EQ(clean.plan().trashed, 3U);
    EXPECT_EQ(clean.plan().permanent, 1U);
    EXPECT_EQ(clean.plan().irreplaceable, 1U);
    std::vector<std::string> failed;
    for (const auto &outcome : clean.run([](auto...) {}, {}).outcomes) {
        if (outcome.result.isFailure()) {
            failed.push_back(outcome.id);
        }
    }
    EXPECT_THAT(failed, ElementsAre("user-caches:kept", "logs:log"));
    EXPECT_THAT(FileManager::contentsOfDirectory(tree / (ann + ".Trash")), ElementsAre("x"));
    EXPECT_TRUE(FileManager::exists(tree / (ann + "Library/Caches/kept/x")));
    EXPECT_TRUE(FileManager::exists(tree / "outside/log/x"));
}

} // namespace
} // namespace klarbox::test
