#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/XcodeScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(XcodeScanner, findsWhatXcodeRebuilds) {
    const std::string xcode = "Library/Developer/Xcode/";
    const TemporaryTree home{
        {xcode + "DerivedData/MyApp-bqwxhfyzkjatlqdoekrsbhgvzmsi/a", bytes(400'000)},
        {xcode + "DerivedData/info.plist", bytes(9000)},
        {xcode + "DerivedData/linked", link("../Archives")},
        {xcode + "watchOS DeviceSupport/10.2 (21S364)/a", bytes(300'000)},
        {xcode + "watchOS devicesupport/9/a", bytes(300'000)},
        {xcode + "Archives/2024-01-05/My.App 5-1-24, 10.31.xcarchive/a", bytes(200'000)},
        {xcode + "Archives/2024-01-05/notes.txt", bytes(200'000)},
        {xcode + "Archives/2024-01-05/Old.XCARCHIVE/a", bytes(200'000)},
        {xcode + "Archives/loose.xcarchive", bytes(200'000)},
        {"Library/Developer/CoreSimulator/Caches/a", bytes(100'000)},
        {xcode + "DocumentationCache", link("Archives")},
    };
    auto context = scanContext(home.root());
    const auto scan = XcodeScanner().scan(context, {});
    const auto at = [&](const std::string &path) { return home / path; };
    const auto expected = [&](std::string title, const std::string &path, const FileURL &root,
                              SafetyTier tier, std::string note, std::string group) {
        return KlarboxItem{
            .id = "xcode:" + at(path).path(),
            .title = std::move(title),
            .detail = "~/" + path,
            .target = KlarboxTarget::item(at(path)),
            .allowedRoot = root,
            .size = DiskUsage::allocatedSize(at(path)),
            .tier = tier,
            .note = std::move(note),
            .isSelectedByDefault = tier == SafetyTier::safe,
            .group = std::move(group),
        };
    };
    auto cache = expected("Simulator caches", "Library/Developer/CoreSimulator/Caches",
                          at("Library/Developer/CoreSimulator/Caches"), SafetyTier::safe,
                          "Rebuilt automatically.", "Caches");
    cache.id = "xcode:CoreSimulator/Caches";
    cache.target = KlarboxTarget::contents(*cache.allowedRoot);
    EXPECT_THAT(
        scan.items,
        ElementsAre(expected("MyApp", xcode + "DerivedData/MyApp-bqwxhfyzkjatlqdoekrsbhgvzmsi",
                             at(xcode + "DerivedData"), SafetyTier::safe,
                             "Rebuilt the next time you build.", "Derived Data"),
                    expected("watchOS 10.2 (21S364)", xcode + "watchOS DeviceSupport/10.2 (21S364)",
                             at(xcode + "watchOS DeviceSupport"), SafetyTier::safe,
                             "Copied again the next time you connect a device running this "
                             "version.",
                             "Device Support"),
                    expected("My.App 5-1-24, 10.31 (2024-01-05)",
                             xcode + "Archives/2024-01-05/My.App 5-1-24, 10.31.xcarchive",
                             at(xcode + "Archives"), SafetyTier::review,
                             "Holds the debug symbols needed to read crash reports for this build.",
                             "Archives"),
                    cache));
    EXPECT_THAT(scan.issues, IsEmpty());

    context.minimumSize = scan.items[2].size + 1;
    EXPECT_EQ(XcodeScanner().scan(context, {}).items.size(), 2U);
    EXPECT_THAT(XcodeScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(XcodeScanner, keepsDiscoveryOrderAmongEqualSizes) {
    const TemporaryTree home{
        {"Library/Developer/Xcode/iOS Device Logs/a", bytes(9000)},
        {"Library/Developer/Xcode/UserData/Previews/a", bytes(9000)},
        {"Library/Developer/Xcode/iOS DeviceSupport/17/a", bytes(9000)},
        {"Library/Developer/Xcode/xrOS DeviceSupport/1/a", bytes(9000)},
        {"Library/Developer/Xcode/macOS DeviceSupport/14/a", bytes(9000)},
        {"Library/Developer/Xcode/DerivedData/ModuleCache.noindex/a", bytes(9000)},
    };
    EXPECT_THAT(titles(XcodeScanner().scan(scanContext(home.root()), {})),
                ElementsAre("Module cache", "iOS 17", "macOS 14", "xrOS 1", "SwiftUI preview data",
                            "Device logs"));
}

TEST(XcodeScanner, namesProjectsWithoutTheirHash) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"ModuleCache.noindex", "Module cache"},
        {"Foo", "Foo"},
        {"My-Tool-abcdefgh", "My-Tool"},
        {"MyApp-abcdefg", "MyApp-abcdefg"},
        {"Build-1234567890", "Build-1234567890"},
        {"MyApp-abcdefgH", "MyApp-abcdefgH"},
        {"MyApp-abcdefg1", "MyApp-abcdefg1"},
        {"MyApp-", "MyApp-"},
        {"-abcdefgh", ""},
        {"MyApp-éééééééé", "MyApp"},
        {"MyApp-éééé", "MyApp-éééé"},
        {"MyApp-e\u0301e\u0301e\u0301e\u0301", "MyApp-e\u0301e\u0301e\u0301e\u0301"},
        {"MyApp-abcdefgh\xff", "MyApp-abcdefgh\xff"},
        {"bad\xff-abcdefgh", "bad\xff"},
    };
    for (const auto &[folder, project] : rows) {
        EXPECT_EQ(XcodeScanner::projectName(folder), project);
    }
}

TEST(XcodeScanner, isRelevantWhereXcodeOrTheSimulatorRan) {
    const TemporaryTree home{{"Library/Developer/Other", directory()}};
    const auto context = scanContext(home.root());
    EXPECT_FALSE(XcodeScanner().isRelevant(context));
    home.add({"Library/Developer/CoreSimulator", directory()});
    EXPECT_TRUE(XcodeScanner().isRelevant(context));
    const TemporaryTree xcodeOnly{{"Library/Developer/Xcode", directory()}};
    EXPECT_TRUE(XcodeScanner().isRelevant(scanContext(xcodeOnly.root())));
}

} // namespace
} // namespace klarbox::test
