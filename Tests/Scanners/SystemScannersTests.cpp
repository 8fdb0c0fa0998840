#include "KlarboxKit/Scanners/SimulatorDyldCacheScanner.hpp"
#include "KlarboxKit/Scanners/SystemCrashReportsScanner.hpp"
#include "KlarboxKit/Scanners/SystemLogsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(SystemLogsScanner, tellsRotatedLogsFromLiveOnes) {
    const TemporaryTree disk;
    const auto rotated = words(".12 a.bz2 a.xz b.log.1 s.log.0.gz wifi.log.old x.zip z.log.007");
    const auto live = words("a. a.1b backup.GZ gz system.log y.\xd9\xa3");
    addFiles(disk, "log/", fmt::format("{} {}", fmt::join(rotated, " "), fmt::join(live, " ")));
    auto scan = SystemLogsScanner(disk / "none", disk / "log").scan(scanContext(disk.root()), {});
    EXPECT_EQ(scan.items.size(), rotated.size() + live.size());
    std::erase_if(scan.items, [](const auto &item) { return !item.isSelectedByDefault; });
    EXPECT_THAT(titles(scan), testing::UnorderedElementsAreArray(rotated));
}

TEST(SystemLogsScanner, offersBothFoldersButNoCrashReports) {
    const TemporaryTree disk{
        {"Library/DiagnosticReports/a.ips", bytes(300'000)},
        {"Library/diagnosticreports/a.ips", bytes(200'000)},
        {"Library/same.log", bytes(9000)},
        {"system/same.log", bytes(9000)},
        {"system/DiagnosticReports.1/a", bytes(100'000)},
        {"system/same.log.1", bytes(9000)},
        {"system/empty.log", bytes(0)},
    };
    const SystemLogsScanner scanner(disk / "Library", disk / "system");
    const auto context = scanContext(disk / "home");
    const std::string note = R"(
    A system service may still be writing here.
    Removing it is harmless, but the space may only come back after the service restarts.)";
    EXPECT_EQ(replaced(offers(scanner, context, disk.root()), note, " LIVE"), R"(
system-logs:@ | * | @ | contents $/Library/diagnosticreports | .. | [x] safe permanent root
system-logs:@ | * | @ | contents $/system/DiagnosticReports.1 | .. | [ ] review permanent root LIVE
system-logs:@ | * | @ | item $/Library/same.log | .. | [x] safe permanent root
system-logs:@ | * | @ | item $/system/same.log | .. | [ ] review permanent root LIVE
system-logs:@ | * | @ | item $/system/same.log.1 | .. | [x] safe permanent root)");
}

TEST(SystemCrashReportsScanner, offersAllVisibleReportsTogether) {
    const TemporaryTree disk;
    addFiles(disk, "r/", ".DS_Store .hidden.ips");
    const SystemCrashReportsScanner scanner(disk / "r");
    const auto context = scanContext(disk / "home");
    EXPECT_EQ(offers(scanner, context, disk.root()), "");

    addFiles(disk, "r/", "a.ips Retired/old.ips");
    disk.add({"r/b.ips", hardLink("r/a.ips")});
    EXPECT_EQ(offers(scanner, context, disk.root()), R"(
system-crash-reports | System crash and diagnostic reports | @ | items | @ | [x] safe permanent root
    + Retired
    + a.ips
    + b.ips)");
}

TEST(SimulatorDyldCacheScanner, offersEachRuntimesFolder) {
    const TemporaryTree disk{
        {"dyld/22A3354/data", bytes(50'000)},
        {"dyld/linked", link("22A3354")},
    };
    addFiles(disk, "dyld/", "21A328/data file");
    const SimulatorDyldCacheScanner scanner(disk / "dyld");
    auto context = scanContext(disk / "home");
    EXPECT_TRUE(scanner.isRelevant(context));
    EXPECT_FALSE(SimulatorDyldCacheScanner(disk / "none").isRelevant(context));
    const std::string expected = R"(
simulator-dyld-caches:* | Runtime build 22A3354 | @ | item $/22A3354 | .. | [x] safe permanent root
simulator-dyld-caches:* | Runtime build 21A328 | @ | item $/21A328 | .. | [x] safe permanent root)";
    EXPECT_EQ(offers(scanner, context, disk / "dyld"), expected);
    context.environment.runningBundleIDs = {"com.apple.iphonesimulator"};
    for (const auto &item : scanner.scan(context, {}).items) {
        EXPECT_FALSE(item.isSelectedByDefault);
        EXPECT_EQ(item.note, "The Simulator is running. Quit it first.");
    }
}

} // namespace
} // namespace klarbox::test
