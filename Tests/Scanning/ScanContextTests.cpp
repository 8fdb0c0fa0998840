#include "KlarboxKit/Platform/CurrentDirectory.hpp"
#include "KlarboxKit/Scanning/ScanContext.hpp"

#include "Tests/Support/ScanFixture.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;

TEST(ScanContext, expandsPathsAsTyped) {
    const auto context = scanContext(FileURL("/Users/ann", true));
    const auto here = currentDirectory();
    const std::pair<const char *, std::string> cases[] = {
        {"~", "/Users/ann"},
        {"~/", "/Users/ann"},
        {"~/a/../b", "/Users/ann/a/../b"},
        {"~other/x", here + "/~other/x"},
        {"relative", here + "/relative"},
        {"/a/~", "/a/~"},
    };
    for (const auto &[typed, path] : cases) {
        EXPECT_EQ(context.expand(typed).path(), path) << typed;
    }
}

TEST(ScanContext, countsWholeDaysBeforeNow) {
    const auto context = scanContext(FileURL("/Users/ann"));
    const std::pair<FileManager::Date, std::int64_t> cases[] = {
        {scanTime, 0},
        {scanTime - 86399s, 0},
        {scanTime - 86400s, 1},
        {scanTime - 86400s * 365 + 1us, 364},
        {scanTime + std::chrono::days(10), 0},
        // A date that no calendar holds.
        {FileManager::date(INT64_MAX, 0), 0},
    };
    for (const auto &[date, days] : cases) {
        EXPECT_EQ(context.daysSince(date), days);
    }
    EXPECT_GT(context.daysSince(FileManager::date(INT64_MIN, 0)), 50'000'000);
}

} // namespace
} // namespace klarbox::test
