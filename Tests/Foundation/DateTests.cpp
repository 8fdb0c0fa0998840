#include "KlarboxKit/Foundation/Date.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;

TEST(Date, holdsWhatFileSystemsStore) {
    EXPECT_EQ(dateAt(-1, 999'999'999), Date(-1us));
    EXPECT_EQ(dateAt(1, 1), Date(1s));
    const auto first = dateAt(INT64_MIN, 0).time_since_epoch();
    const auto last = dateAt(INT64_MAX, 999'999'999).time_since_epoch();
    EXPECT_LT(first, std::chrono::years(-9999));
    EXPECT_GT(last, std::chrono::years(9999));
    EXPECT_LE(last, Date::duration::max() + first); // their distance fits
}

} // namespace
} // namespace klarbox::test
