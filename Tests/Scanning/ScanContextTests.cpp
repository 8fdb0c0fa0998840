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
    const struct {
        const char *typed;
        std::string path;
    } cases[] = {
        {"~", "/Users/ann"},
        {"~/", "/Users/ann"},
        {"~/Documents/GitHub", "/Users/ann/Documents/GitHub"},
        {"~/a/../b", "/Users/ann/a/../b"},
        {"~other/x", here + "/~other/x"},
        {"relative", here + "/relative"},
        {"/Volumes/Work", "/Volumes/Work"},
        {"/a/~", "/a/~"},
    };
    for (const auto &[typed, path] : cases) {
        EXPECT_EQ(context.expand(typed).path(), path) << typed;
    }
}

TEST(ScanContext, countsWholeDaysBeforeNow) {
    const auto context = scanContext(FileURL("/Users/ann"));
    const struct {
        FileManager::Date date;
        std::int64_t days;
    } cases[] = {
        {scanTime, 0},
        {scanTime - 86399s, 0},
        {scanTime - 86400s, 1},
        {scanTime - 86400s * 365 + 1us, 364},
        {scanTime + std::chrono::days(10), 0},
        {scanTime + 1us, 0},
        {FileManager::Date(0us), 20779},
    };
    for (const auto &[date, days] : cases) {
        EXPECT_EQ(context.daysSince(date), days);
    }
    // Dates that no calendar holds.
    EXPECT_EQ(context.daysSince(FileManager::date(INT64_MAX, 0)), 0);
    EXPECT_GT(context.daysSince(FileManager::date(INT64_MIN, 0)), 50'000'000);
}

} // namespace
} // namespace klarbox::test
