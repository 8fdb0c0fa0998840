#include "KlarboxKit/Scanners/SimulatorDyldCacheScanner.hpp"
#include "KlarboxKit/Scanners/SystemCrashReportsScanner.hpp"
#include "KlarboxKit/Scanners/SystemLogsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string logLine(const std::string &root, const std::string &name, const std::string &kind,
                    bool isBusy) {
    const auto path = root + "/" + name;
    return "system-logs:" + path + " | " + name + " | " + path + " | " + kind + " " + path + " | " +
           root +
           (isBusy ? " | review permanent privileged |  | A system service may still be writing "
                     "here. Removing it is harmless, but the space may only come back after the "
                     "service restarts."
                   : " | safe selected permanent privileged |  | ");
}

TEST(SystemLogsScanner, tellsRotatedLogsFromLiveOnes) {
    const TemporaryTree disk;
    std::vector<std::string> expected;
    for (const auto &[name, isRotated] : std::initializer_list<std::pair<std::string, bool>>{
             {".12", true},
             {"a.", false},
             {"a.1b", false},
             {"a.bz2", true},
             {"a.gz\n", false},
             {"a.xz", true},
             {"backup.GZ", false},
             {"gz", false},
             {"install.log.1", true},
             {"system.log", false},
             {"s.log.0.gz", true},
             {"wifi.log.old", true},
             {"x.log.zip", true},
             {"y.\xd9\xa3", false},
             {"z.log.007", true},
         }) {
        disk.add({"log/" + name, bytes(9000)});
        expected.push_back(logLine("$/log", name, "item", !isRotated));
    }
    const SystemLogsScanner scanner(disk / "none", disk / "log");
    const auto context = scanContext(disk / "home");
    EXPECT_THAT(lines(scanner.scan(context, {}), disk),
                testing::UnorderedElementsAreArray(expected));
    EXPECT_THAT(scanner.scan(context, stopped()).items, IsEmpty());
}

TEST(SystemLogsScanner, offersBothFoldersButNoCrashReports) {
    const TemporaryTree disk{
        {"Library/DiagnosticReports/a.ips", bytes(300'000)},
        {"Library/diagnosticreports/a.ips", bytes(200'000)},
        {"Library/same.log", bytes(9000)},
        {"system/same.log", bytes(9000)},
        {"system/DiagnosticReports.1/a", bytes(100'000)},
        {"system/empty.log", bytes(0)},
    };
    const SystemLogsScanner scanner(disk / "Library", disk / "system");
    EXPECT_THAT(lines(scanner.scan(scanContext(disk / "home"), {}), disk),
                ElementsAre(logLine("$/Library", "diagnosticreports", "contents", false),
                            logLine("$/system", "DiagnosticReports.1", "contents", true),
                            logLine("$/Library", "same.log", "item", false),
                            logLine("$/system", "same.log", "item", true)));
}

TEST(SystemCrashReportsScanner, offersAllVisibleReportsTogether) {
    const TemporaryTree disk{{"r/.DS_Store", bytes(9000)}, {"r/.hidden.ips", bytes(9000)}};
    const SystemCrashReportsScanner scanner(disk / "r");
    auto context = scanContext(disk / "home");
    EXPECT_THAT(scanner.scan(context, {}).items, IsEmpty());

    disk.add({"r/a.ips", bytes(8192)});
    disk.add({"r/b.ips", hardLink("r/a.ips")});
    disk.add({"r/Retired/old.ips", bytes(9000)});
    const auto scan = scanner.scan(context, stopped());
    EXPECT_THAT(lines(scan, disk),
                ElementsAre("system-crash-reports | System crash and diagnostic reports | $/r | "
                            "items $/r/Retired $/r/a.ips $/r/b.ips | $/r | safe selected permanent "
                            "privileged |  | "))
        << "the reports are measured whole, however soon the scan is stopped";
    context.minimumSize = scan.items.at(0).size;
    EXPECT_EQ(scanner.scan(context, {}).items.size(), 1U);
    context.minimumSize += 1;
    EXPECT_THAT(scanner.scan(context, {}).items, IsEmpty());
}

TEST(SimulatorDyldCacheScanner, offersEachRuntimesFolder) {
    const TemporaryTree disk{
        {"dyld/21A328/data", bytes(30'000)},
        {"dyld/22A3354/data", bytes(50'000)},
        {"dyld/file", bytes(90'000)},
        {"dyld/linked", link("22A3354")},
    };
    const SimulatorDyldCacheScanner scanner(disk / "dyld");
    auto context = scanContext(disk / "home");
    EXPECT_TRUE(scanner.isRelevant(context));
    EXPECT_FALSE(SimulatorDyldCacheScanner(disk / "none").isRelevant(context));
    for (const bool isRunning : {false, true}) {
        if (isRunning) {
            context.environment.runningBundleIDs = {"com.apple.iphonesimulator"};
        }
        const auto expected = [&](const std::string &name) {
            return "simulator-dyld-caches:" + name + " | Runtime build " + name + " | $/dyld/" +
                   name + " | item $/dyld/" + name + " | $/dyld | " +
                   (isRunning ? "safe permanent privileged |  | The Simulator is running. Quit it "
                                "first."
                              : "safe selected permanent privileged |  | ");
        };
        EXPECT_THAT(lines(scanner.scan(context, {}), disk),
                    ElementsAre(expected("22A3354"), expected("21A328")));
    }
    EXPECT_THAT(scanner.scan(context, stopped()).items, IsEmpty());
}

} // namespace
} // namespace klarbox::test
