#include "KlarboxCLI/ReportTable.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

KlarboxItem item(const std::string &title, const std::string &folder) {
    return {.id = folder,
            .title = title,
            .detail = folder + "/" + title,
            .target = KlarboxTarget::item(FileURL("/x")),
            .tier = SafetyTier::safe};
}

TEST(ReportTable, tellsItemsOfOneTitleApartAndFitsTheTerminal) {
    const std::vector items{item("node_modules", "~/shop"), item("node_modules", "~/office"),
                            item("Photos", "~/Library/Caches"), item("Notes", "~/Library/Caches"),
                            item("never reached", "~")};
    CleanReport report;
    const auto add = [&](CleanResult result, std::int64_t bytes, bool wentToTrash = false) {
        report.outcomes.push_back({.id = "",
                                   .title = "",
                                   .result = std::move(result),
                                   .bytes = bytes,
                                   .wentToTrash = wentToTrash});
    };
    add(CleanResult::removed(), 1'234'567);
    add(CleanResult::failed("Error: \x1b[2J locked\nby it\n"), 0);
    add(CleanResult::movedToTrash(), 5000, true);
    add(CleanResult::partial("1 of 2 stayed."), 0);
    const auto plain = reportTable(items, report, {});
    EXPECT_EQ(plain,
              "✓ ~/shop/node_modules       1.2 MB  deleted\n"
              "✗ ~/office/node_modules        0 B  failed: Error: \\x1b[2J locked; by it\n"
              "✓ Photos                    5.0 kB  moved to the Trash\n"
              "✗ Notes                        0 B  partly removed: 1 of 2 stayed.\n"
              "\n"
              "Freed 1.2 MB, moved 5.0 kB to the Trash (emptying it frees them); 2 items could "
              "not be cleaned.\n");
    for (const std::size_t width : {30U, 63U, 64U, 80U}) {
        const auto table = reportTable(items, report, {.width = width});
        for (const auto line : Text::lines(table)) {
            EXPECT_LE(Text::displayWidth(line), width) << line;
        }
        EXPECT_THAT(table, AllOf(HasSubstr("~/sh"), HasSubstr("~/of"), HasSubstr("deleted"),
                                 Not(HasSubstr("reached"))));
    }
}

} // namespace
} // namespace klarbox::test
