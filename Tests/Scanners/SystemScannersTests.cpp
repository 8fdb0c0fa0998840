#include "KlarboxKit/Safety/DiskUsage.hpp"
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

const std::string busyNote = "A system service may still be writing here. Removing it is harmless, "
                             "but the space may only come back after the service restarts.";

TEST(SystemLogsScanner, tellsRotatedLogsFromLiveOnes) {
    enum class Kind { file, folder, link };
    struct Row {
        std::string name;
        Kind kind;
        bool isRotated;
    };
    const Row rows[] = {
        {"system.log.0.gz", Kind::file, true},
        {"install.log.1", Kind::file, true},
        {"wifi.log.old", Kind::file, true},
        {"x.log.zip", Kind::file, true},
        {"a.bz2", Kind::file, true},
        {"a.xz", Kind::file, true},
        {".12", Kind::file, true},
        {"system.log", Kind::file, false},
        {"backup.GZ", Kind::file, false},
        {"a.1b", Kind::file, false},
        {"gz", Kind::file, false},
        {"a.", Kind::file, false},
        {"a.gz ", Kind::file, false},
        {"a.gz\n", Kind::file, false},
        {"asl", Kind::folder, false},
        {"asl.1", Kind::folder, false},
        {"link.1", Kind::link, true},
        {"link", Kind::link, false},
    };
    const TemporaryTree disk{{"target/data", bytes(9000)}};
    for (const auto &row : rows) {
        const auto path = "log/" + row.name;
        switch (row.kind) {
        case Kind::file:
            disk.add({path, bytes(9000)});
            break;
        case Kind::folder:
            disk.add({path + "/data", bytes(9000)});
            break;
        case Kind::link:
            // Long enough that file systems give the link a block of its own.
            disk.add({path, link(".." + std::string(150, '/') + "target")});
            break;
        }
    }
    const auto logs = disk / "log";
    const auto scan = SystemLogsScanner(disk / "none", logs).scan(scanContext(disk / "home"), {});
    for (const auto &row : rows) {
        const auto url = logs.appending(row.name);
        const auto size = DiskUsage::allocatedSize(url);
        if (size == 0) {
            continue; // a link that takes no block here
        }
        EXPECT_EQ(itemWithID(scan, "system-logs:" + url.path()),
                  (KlarboxItem{
                      .id = "system-logs:" + url.path(),
                      .title = row.name,
                      .detail = url.path(),
                      .target = row.kind == Kind::folder ? KlarboxTarget::contents(url)
                                                         : KlarboxTarget::item(url),
                      .allowedRoot = logs,
                      .size = size,
                      .tier = row.isRotated ? SafetyTier::safe : SafetyTier::review,
                      .note = row.isRotated ? std::nullopt : std::optional(busyNote),
                      .isSelectedByDefault = row.isRotated,
                      .removalPolicy = RemovalPolicy::permanentOnly,
                      .requiresPrivileges = true,
                  }));
    }
}

TEST(SystemLogsScanner, offersTheLibrarysLogsButForCrashReports) {
    const TemporaryTree disk{
        {"Library/DiagnosticReports/a.ips", bytes(90'000)},
        {"Library/diagnosticreports/a.ips", bytes(90'000)},
        {"Library/same.log", bytes(9000)},
        {"system/same.log", bytes(9000)},
        {"system/DiagnosticReports/a", bytes(200'000)},
        {"system/empty.log", bytes(0)},
    };
    const SystemLogsScanner scanner(disk / "Library", disk / "system");
    const auto scan = scanner.scan(scanContext(disk / "home"), {});
    ASSERT_THAT(titles(scan),
                ElementsAre("DiagnosticReports", "diagnosticreports", "same.log", "same.log"));
    EXPECT_EQ(scan.items[1].tier, SafetyTier::safe);
    EXPECT_EQ(scan.items[1].target, KlarboxTarget::contents(disk / "Library/diagnosticreports"));
    EXPECT_EQ(scan.items[2].allowedRoot, disk / "Library");
    EXPECT_TRUE(scan.items[2].isSelectedByDefault) << "a live log, but an application's";
    EXPECT_EQ(scan.items[3].allowedRoot, disk / "system");
    EXPECT_FALSE(scan.items[3].isSelectedByDefault);
    EXPECT_THAT(scanner.scan(scanContext(disk / "home"), stopped()).items, IsEmpty());

    const auto none = SystemLogsScanner(disk / "Library/same.log", disk / "none")
                          .scan(scanContext(disk / "home"), {});
    EXPECT_EQ(none, (CategoryScan{.info = none.info}));
}

TEST(SystemCrashReportsScanner, offersAllVisibleReportsTogether) {
    const TemporaryTree disk{{"r/.DS_Store", bytes(9000)}, {"r/.hidden.ips", bytes(9000)}};
    const auto root = disk / "r";
    const SystemCrashReportsScanner scanner(root);
    auto context = scanContext(disk / "home");
    EXPECT_THAT(scanner.scan(context, {}).items, IsEmpty());

    disk.add({"r/a.ips", bytes(8192)});
    disk.add({"r/b.ips", hardLink("r/a.ips")});
    disk.add({"r/Retired/old.ips", bytes(9000)});
    const std::vector<FileURL> reports{root.appending("Retired"), root.appending("a.ips"),
                                       root.appending("b.ips")};
    const KlarboxItem expected{
        .id = "system-crash-reports",
        .title = "System crash and diagnostic reports",
        .detail = root.path(),
        .target = KlarboxTarget::items(reports),
        .allowedRoot = root,
        .size = DiskUsage::allocatedSize(reports),
        .tier = SafetyTier::safe,
        .isSelectedByDefault = true,
        .removalPolicy = RemovalPolicy::permanentOnly,
        .requiresPrivileges = true,
    };
    EXPECT_THAT(scanner.scan(context, stopped()).items, ElementsAre(expected))
        << "the reports are measured whole, however soon the scan is stopped";
    context.minimumSize = expected.size;
    EXPECT_EQ(scanner.scan(context, {}).items.size(), 1U);
    context.minimumSize += 1;
    EXPECT_THAT(scanner.scan(context, {}).items, IsEmpty());
    for (const auto &missing : {root.appending("a.ips"), root.appending("none")}) {
        const auto none = SystemCrashReportsScanner(missing).scan(scanContext(disk / "home"), {});
        EXPECT_EQ(none, (CategoryScan{.info = none.info}));
    }
}

TEST(SimulatorDyldCacheScanner, offersEachRuntimesFolder) {
    const TemporaryTree disk{
        {"dyld/21A328/data", bytes(30'000)},
        {"dyld/22A3354/data", bytes(50'000)},
        {"dyld/file", bytes(90'000)},
        {"dyld/linked", link("22A3354")},
    };
    const auto root = disk / "dyld";
    const SimulatorDyldCacheScanner scanner(root);
    auto context = scanContext(disk / "home");
    EXPECT_TRUE(scanner.isRelevant(context));
    EXPECT_FALSE(SimulatorDyldCacheScanner(disk / "none").isRelevant(context));
    for (const bool isRunning : {false, true}) {
        if (isRunning) {
            context.environment.runningBundleIDs = {"com.apple.iphonesimulator"};
        }
        const auto scan = scanner.scan(context, {});
        ASSERT_THAT(ids(scan),
                    ElementsAre("simulator-dyld-caches:22A3354", "simulator-dyld-caches:21A328"));
        const auto url = root.appending("22A3354");
        EXPECT_EQ(scan.items[0],
                  (KlarboxItem{
                      .id = "simulator-dyld-caches:22A3354",
                      .title = "Runtime build 22A3354",
                      .detail = url.path(),
                      .target = KlarboxTarget::item(url),
                      .allowedRoot = root,
                      .size = DiskUsage::allocatedSize(url),
                      .tier = SafetyTier::safe,
                      .note = isRunning ? std::optional<std::string>(
                                              "The Simulator is running. Quit it first.")
                                        : std::nullopt,
                      .isSelectedByDefault = !isRunning,
                      .removalPolicy = RemovalPolicy::permanentOnly,
                      .requiresPrivileges = true,
                  }));
    }
    EXPECT_THAT(scanner.scan(context, stopped()).items, IsEmpty());
    const auto none = SimulatorDyldCacheScanner(root.appending("file")).scan(context, {});
    EXPECT_EQ(none, (CategoryScan{.info = none.info}));
}

} // namespace
} // namespace klarbox::test
