#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const FileURL xcrun("/usr/bin/xcrun");

std::string device(std::string_view name, std::string_view dataPath) {
    return fmt::format(R"({{"name": "{}", "udid": "U-{}", "dataPath": "{}", "dataPathSize": 5,
                           "isAvailable": false, "state": "Shutdown"}})",
                       name, name, dataPath);
}

struct Simulators {
    explicit Simulators(CommandResult listing) {
        runner = std::make_shared<RecordedRunner>(std::map<std::string, CommandResult>{
            {"xcrun simctl list devices unavailable -j", std::move(listing)}});
        context.environment.runner = runner;
        context.environment.locateTool = [](std::string_view name) {
            return name == "xcrun" ? std::optional(xcrun) : std::nullopt;
        };
    }
    CategoryScan scan() const { return SimulatorsScanner().scan(context, {}); }

    ScanContext context = scanContext(FileURL("/nowhere"));
    std::shared_ptr<RecordedRunner> runner;
};

TEST(SimulatorsScanner, offersTheDevicesTogetherWithTheirFolders) {
    const TemporaryTree home{
        {"Devices/A/data/Library/db", bytes(100'000)},
        {"Devices/A/device.plist", bytes(5000)},
        {"Devices/B/data/file", bytes(30'000)},
        {"Devices/C/data/available", bytes(70'000)},
    };
    Simulators simulators({0, fmt::format(R"({{"devices": {{"b-runtime": [{}], "empty": [],
                                             "a-runtime": [{}, {}]}}, "pairs": {{}}}})",
                                          device("iPhone 8", (home / "Devices/A/data").path()),
                                          device("iPad", (home / "Devices/B/data/").path()),
                                          device("gone", "/no/such/device/data"))});
    const std::vector<FileURL> folders{home / "Devices/A", home / "Devices/B"};
    const KlarboxItem expected{
        .id = "simulators:unavailable",
        .title = "3 unavailable simulators",
        .detail = "iPad, gone, iPhone 8",
        .target = KlarboxTarget::command({xcrun, {"simctl", "delete", "unavailable"}}),
        .size = DiskUsage::allocatedSize(folders),
        .isSizeEstimate = false,
        .tier = SafetyTier::safe,
        .isSelectedByDefault = true,
    };
    EXPECT_THAT(simulators.scan().items, ElementsAre(expected));
    ASSERT_EQ(simulators.runner->calls().size(), 1U);
    EXPECT_EQ(simulators.runner->calls()[0].timeout, std::chrono::seconds(60));

    simulators.context.minimumSize = expected.size;
    EXPECT_EQ(simulators.scan().items.size(), 1U);
    simulators.context.minimumSize += 1;
    EXPECT_THAT(simulators.scan().items, IsEmpty());
}

TEST(SimulatorsScanner, namesTheFirstFew) {
    const struct {
        std::vector<std::string> names;
        const char *title;
        const char *detail;
    } cases[] = {
        {{"A"}, "1 unavailable simulator", "A"},
        {{"A", "B", "C", "D"}, "4 unavailable simulators", "A, B, C, D"},
        {{"A", "B", "C", "D", "E"}, "5 unavailable simulators", "A, B, C, D, ..."},
    };
    for (const auto &[names, title, detail] : cases) {
        std::vector<std::string> devices;
        for (const auto &name : names) {
            devices.push_back(device(name, "/nowhere/data"));
        }
        // Nothing to measure is still worth offering when every size is wanted.
        const Simulators simulators(
            {0, fmt::format(R"({{"devices": {{"r": [{}]}}}})", fmt::join(devices, ","))});
        const auto scan = simulators.scan();
        ASSERT_EQ(scan.items.size(), 1U);
        EXPECT_EQ(scan.items[0].title, title);
        EXPECT_EQ(scan.items[0].detail, detail);
        EXPECT_EQ(scan.items[0].size, 0);
    }
}

TEST(SimulatorsScanner, measuresNothingForAPathThatIsNotAbsolute) {
    const Simulators simulators({0, R"({"devices": {"r": [{"name": "A", "udid": "U",
                                        "dataPath": "Devices/A/data"}]}})"});
    const auto scan = simulators.scan();
    ASSERT_EQ(scan.items.size(), 1U);
    EXPECT_EQ(scan.items[0].size, 0);
}

TEST(SimulatorsScanner, offersNothingUnlessTheListingIsWhole) {
    const auto good = R"({"devices": {"r": [)" + device("A", "/nowhere/data") + "]}}";
    const CommandResult cases[] = {
        {1, good},
        {-1, "xcrun could not be started"},
        {-2, "Timed out"},
        {0, ""},
        {0, "xcrun: warning\n" + good},
        {0, good.substr(0, good.size() - 1)},
        {0, R"({"devices": {}})"},
        {0, R"({"devices": [])" + device("A", "/nowhere/data") + "]}"},
        {0, R"({"devices": {"r": {}}})"},
        {0, R"({"devices": {"r": ["A"]}})"},
        {0, R"({"devices": {"r": [{"name": "A", "udid": "U"}]}})"},
        {0, R"({"devices": {"r": [{"name": 1, "udid": "U", "dataPath": "/x/y"}]}})"},
        {0, R"([])"},
        {0, R"("devices")"},
        {0, std::string(100'000, '[')},
        {0, good + std::string(std::size_t{5} << 20, ' ')},
    };
    for (const auto &listing : cases) {
        const auto scan = Simulators(listing).scan();
        EXPECT_THAT(scan.items, IsEmpty()) << listing.output.substr(0, 100);
        EXPECT_THAT(scan.issues, IsEmpty());
    }
    EXPECT_EQ(Simulators({0, good}).scan().items.size(), 1U); // what the cases above vary
}

TEST(SimulatorsScanner, isRelevantWithDevicesAndDeveloperTools) {
    const TemporaryTree tree{
        {"with/Library/Developer/CoreSimulator/Devices", directory()},
        {"without", directory()},
        {"Xcode.app", directory()},
    };
    const SimulatorsScanner installed({tree / "missing", tree / "Xcode.app"});
    const SimulatorsScanner missing({tree / "missing"});
    EXPECT_TRUE(installed.isRelevant(scanContext(tree / "with")));
    EXPECT_FALSE(installed.isRelevant(scanContext(tree / "without")));
    EXPECT_FALSE(missing.isRelevant(scanContext(tree / "with")));
}

} // namespace
} // namespace klarbox::test
