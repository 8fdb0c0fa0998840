#include "KlarboxKit/Scanners/LogsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;

TEST(LogsScanner, offersFoldersByContentAndFilesThemselvesLargestFirst) {
    const TemporaryTree home{
        {"Library/Logs/B", bytes(4096)},
        {"Library/Logs/A", bytes(4096)},
        {"Library/Logs/DiagnosticReports/crash.ips", bytes(100'000)},
        {"Library/Logs/.DS_Store", bytes(4096)},
        {"Library/Logs/empty.log", bytes(0)},
        {"elsewhere/old.log", bytes(50'000)},
        {"Library/Logs/linked", link("../../elsewhere")},
    };
    auto context = scanContext(home.root());
    const auto scan = LogsScanner().scan(context, {});

    ASSERT_THAT(titles(scan), ElementsAre("DiagnosticReports", "A", "B"));
    EXPECT_EQ(scan.items[0].target,
              KlarboxTarget::contents(home / "Library/Logs/DiagnosticReports"));
    EXPECT_EQ(scan.items[1].target, KlarboxTarget::item(home / "Library/Logs/A"));
    EXPECT_EQ(scan.items[1].id, "logs:A");
    EXPECT_EQ(scan.items[1].detail, "~/Library/Logs/A");
    EXPECT_TRUE(scan.items[1].isSelectedByDefault);

    // At the threshold an entry is offered, one byte below it is not.
    context.minimumSize = scan.items[1].size;
    EXPECT_EQ(LogsScanner().scan(context, {}).items.size(), 3U);
    context.minimumSize += 1;
    EXPECT_EQ(LogsScanner().scan(context, {}).items.size(), 1U);
}

} // namespace
} // namespace klarbox::test
