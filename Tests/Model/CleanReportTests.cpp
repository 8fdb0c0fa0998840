#include "KlarboxKit/Model/CleanReport.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(CleanReport, countsEveryOutcomeInOneSumAndListsTheFailures) {
    const CleanOutcome removed{"a", "A", CleanResult::removed(), 100};
    const CleanOutcome trashed{"b", "B", CleanResult::movedToTrash(), 50, true};
    const CleanOutcome partial{"c", "C", CleanResult::partial("1 of 2"), 20};
    const CleanOutcome partlyTrashed{"d", "D", CleanResult::partial("1 of 2"), 7, true};
    const CleanOutcome refused{"e", "E", CleanResult::refused(SafetyViolation::isRoot), 0, true};
    const CleanOutcome ran{"f", "F", CleanResult::ranCommand(), 3};
    const CleanOutcome failed{"g", "G", CleanResult::failed("busy")};
    const CleanReport report{{removed, trashed, partial, partlyTrashed, refused, ran, failed}};
    EXPECT_EQ(report.freedBytes(), 123);
    EXPECT_EQ(report.trashedBytes(), 57);
    EXPECT_EQ(report.failures(), (std::vector{partial, partlyTrashed, refused, failed}));
}

} // namespace
} // namespace klarbox::test
