#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <filesystem>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string device(std::string_view name, std::string_view dataPath = "/nowhere/data") {
    return fmt::format(R"({{"name": "{}", "udid": "U", "dataPath": "{}", "dataPathSize": 5}})",
                       name, dataPath);
}

ScanContext simulators(CommandResult listing) {
    return contextWith("xcrun", FileURL("/usr/bin/xcrun"),
                       {{"xcrun simctl list devices unavailable -j", std::move(listing)}});
}

TEST(SimulatorsScanner, offersTheDevicesTogetherWithTheirFolders) {
    const TemporaryTree home{
        {"A/data/Library/db", bytes(100'000)},
        {"A/device.plist", bytes(5000)},
        {"B/data/file", bytes(30'000)},
        {"C/data/available", bytes(70'000)},
    };
    // A relative path leads wherever this process happens to be, so nothing is measured for it.
    const auto relative = std::filesystem::relative((home / "C/data").path()).string();
    auto context = simulators(
        {0,
         fmt::format(R"({{"devices": {{"b": [{}], "empty": [], "a": [{}, {}]}}, "pairs": {{}}}})",
                     device("iPhone 8", (home / "A/data").path()),
                     device("iPad", (home / "B/data/").path()), device("iPod", relative))});
    const auto size = DiskUsage::allocatedSize(std::vector{home / "A", home / "B"});
    EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), fmt::format(R"(
simulators:unavailable | 3 unavailable simulators | iPad, iPod, iPhone 8 | command | none | [x] safe
    /usr/bin/xcrun ["simctl", "delete", "unavailable"] frees {} bytes)",
                                                                              size));
    EXPECT_THAT(asked(context), ElementsAre("60 s: xcrun simctl list devices unavailable -j"));

    context.minimumSize = size;
    EXPECT_EQ(SimulatorsScanner().scan(context, {}).items.size(), 1U);
    context.minimumSize += 1;
    EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), "");
}

TEST(SimulatorsScanner, namesTheFirstFew) {
    const std::pair<const char *, const char *> cases[] = {
        {"A", "1 unavailable simulator: A"},
        {"A B C D", "4 unavailable simulators: A, B, C, D"},
        {"A B C D E", "5 unavailable simulators: A, B, C, D, ..."},
    };
    for (const auto &[names, expected] : cases) {
        std::vector<std::string> devices;
        for (const auto &name : words(names)) {
            devices.push_back(device(name));
        }
        // Nothing to measure is still worth offering when every size is wanted.
        const auto context = simulators(
            {0, fmt::format(R"({{"devices": {{"r": [{}]}}}})", fmt::join(devices, ","))});
        const auto item = SimulatorsScanner().scan(context, {}).items.at(0);
        EXPECT_EQ(item.title + ": " + item.detail.value_or(""), expected);
        EXPECT_EQ(item.size, 0);
    }
}

TEST(SimulatorsScanner, offersNothingUnlessTheListingIsWhole) {
    const auto good = R"({"devices": {"r": [)" + device("A") + "]}}";
    const CommandResult cases[] = {
        {1, good},
        {-2, good},
        {0, ""},
        {0, "xcrun: warning\n" + good},
        {0, good.substr(0, good.size() - 1)},
        {0, R"({"devices": {}})"},
        {0, R"({"devices": [)" + device("A") + "]}"},
        {0, R"({"devices": {"r": {}}})"},
        {0, R"({"devices": {"r": ["A"]}})"},
        {0, R"({"devices": {"r": [{"name": "A", "udid": "U"}]}})"},
        {0, R"({"devices": {"r": [{"name": 1, "udid": "U", "dataPath": "/x/y"}]}})"},
        {0, R"([])"},
        {0, std::string(100'000, '[')},
        {0, good + std::string(std::size_t{5} << 20, ' ')},
    };
    for (const auto &listing : cases) {
        const auto context = simulators(listing);
        EXPECT_EQ(offers(SimulatorsScanner(), context, context.home), "")
            << listing.output.substr(0, 100);
    }
    // What the cases above vary.
    EXPECT_EQ(SimulatorsScanner().scan(simulators({0, good}), {}).items.size(), 1U);
}

TEST(SimulatorsScanner, isRelevantWithDevicesAndDeveloperTools) {
    const TemporaryTree tree{{"with/Library/Developer/CoreSimulator/Devices", directory()},
                             {"Xcode.app", directory()}};
    const SimulatorsScanner installed({tree / "missing", tree / "Xcode.app"});
    const SimulatorsScanner missing({tree / "missing"});
    EXPECT_TRUE(installed.isRelevant(scanContext(tree / "with")));
    EXPECT_FALSE(installed.isRelevant(scanContext(tree / "without")));
    EXPECT_FALSE(missing.isRelevant(scanContext(tree / "with")));
}

} // namespace
} // namespace klarbox::test
