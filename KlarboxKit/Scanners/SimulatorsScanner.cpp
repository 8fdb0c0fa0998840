#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"

#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

namespace klarbox {

std::vector<FileURL> SimulatorsScanner::standardDeveloperTools() {
    return {
        FileURL("/Library/Developer/CommandLineTools/usr/bin/simctl"),
        FileURL("/Applications/Xcode.app"),
        FileURL("/Applications/Xcode-beta.app"),
    };
}

std::vector<SimulatorsScanner::Device>
SimulatorsScanner::parseUnavailable(std::string_view listing) {
    std::vector<Device> devices;
    try {
        const auto record = parseJSON(listing);
        const auto &runtimes = requiredMember(record, "devices");
        if (!runtimes.is_object()) {
            return {};
        }
        // Objects that were read are sorted.
        for (const auto &list : runtimes) {
            if (!list.is_array()) {
                return {};
            }
            for (const auto &device : list) {
                devices.push_back({requiredString(device, "name"), requiredString(device, "udid"),
                                   requiredString(device, "dataPath")});
            }
        }
    } catch (const PlatformError &) {
        return {}; // whatever this is, it is no listing to offer removals from
    }
    return devices;
}

const CategoryInfo &SimulatorsScanner::info() const {
    return CategoryCatalog::simulators();
}

bool SimulatorsScanner::isRelevant(const ScanContext &context) const {
    return FileManager::exists(context.homePath("Library/Developer/CoreSimulator/Devices")) &&
           std::ranges::any_of(developerTools_, FileManager::exists);
}

CategoryScan SimulatorsScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto tool = context.environment.locateTool("xcrun");
    if (!tool) {
        return scan;
    }
    const auto listing =
        context.environment.runner->run({*tool, {"simctl", "list", "devices", "unavailable", "-j"}},
                                        std::chrono::seconds(60), stop);
    if (!listing.succeeded()) {
        return scan;
    }
    const auto devices = parseUnavailable(listing.output);
    std::vector<std::string> names;
    std::vector<FileURL> folders;
    for (const auto &device : devices) {
        names.push_back(device.name);
        // A relative path would be measured wherever this process happens to be.
        if (device.dataPath.starts_with('/')) {
            folders.push_back(FileURL(device.dataPath).parent());
        }
    }
    const auto size = DiskUsage::allocatedSize(folders, [&] { return stop.stop_requested(); });
    if (devices.empty() || !context.isLargeEnough(size)) {
        return scan;
    }
    scan.items.push_back({
        .id = info().id + ":unavailable",
        .title =
            fmt::format("{} unavailable simulator{}", names.size(), names.size() == 1 ? "" : "s"),
        .detail = ScannerSupport::firstOf(names, 4),
        .target = KlarboxTarget::command({*tool, {"simctl", "delete", "unavailable"}}),
        .size = size,
        .tier = SafetyTier::safe,
    });
    return scan;
}

} // namespace klarbox
