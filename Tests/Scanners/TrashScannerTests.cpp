#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/TrashScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(TrashScanner, offersTheHomeTrashAndThoseOfOtherVolumes) {
    const auto mine = ".Trashes/" + std::to_string(::getuid());
    const auto others = ".Trashes/" + std::to_string(::getuid() + 1);
    const TemporaryTree tree{
        {"home/.Trash/old", bytes(5000)},
        {"Volumes/Zip/" + mine + "/a", bytes(90'000)},
        {"Volumes/Backup/" + mine + "/a", bytes(5000)},
        {"Volumes/Empty/" + mine + "/.DS_Store", bytes(5000)},
        {"Volumes/Other/" + others + "/a", bytes(5000)},
        {"Volumes/Plain", bytes(5000)},
        {"Volumes/Startup", link("/")},
        {"Volumes/Gone", link("nowhere")},
    };
    auto context = scanContext(tree / "home");
    const auto scan = TrashScanner(tree / "Volumes").scan(context, {});
    ASSERT_THAT(titles(scan), ElementsAre("Trash", "Trash on Backup", "Trash on Zip"));
    EXPECT_THAT(scan.issues, IsEmpty());
    const auto trash = tree / "home/.Trash";
    EXPECT_EQ(scan.items[0], (KlarboxItem{
                                 .id = "trash:" + trash.path(),
                                 .title = "Trash",
                                 .detail = "~/.Trash",
                                 .target = KlarboxTarget::contents(trash),
                                 .allowedRoot = trash,
                                 .size = DiskUsage::allocatedSize(trash),
                                 .tier = SafetyTier::review,
                                 .note = "Deleted permanently. This can't be undone.",
                                 .isSelectedByDefault = false,
                                 .removalPolicy = RemovalPolicy::permanentOnly,
                             }));
    EXPECT_EQ(scan.items[1].detail, (tree / "Volumes/Backup").appending(mine).path());

    context.minimumSize = 50'000;
    EXPECT_THAT(titles(TrashScanner(tree / "Volumes").scan(context, stopped())),
                ElementsAre("Trash on Zip"))
        << "a Trash is measured whole, however soon the scan is stopped";
}

TEST(TrashScanner, reportsEveryTrashItCannotRead) {
    const auto mine = ".Trashes/" + std::to_string(::getuid());
    const TemporaryTree tree{
        {"home/.Trash", bytes(5000)},
        {"Volumes/A/" + mine, bytes(5000)},
        {"Volumes/B/" + mine + "/a", bytes(5000)},
    };
    const auto scan = TrashScanner(tree / "Volumes").scan(scanContext(tree / "home"), {});
    EXPECT_THAT(titles(scan), ElementsAre("Trash on B"));
    ASSERT_EQ(scan.issues.size(), 2U);
    EXPECT_TRUE(std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));

    // Volumes that cannot be listed are as good as none.
    const auto none = TrashScanner(tree / "home/.Trash").scan(scanContext(tree / "Volumes/B"), {});
    EXPECT_EQ(none, (CategoryScan{.info = none.info}));
}

} // namespace
} // namespace klarbox::test
