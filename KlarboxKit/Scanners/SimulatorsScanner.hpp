#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// "simulators": devices of the Simulator whose system is no longer installed, as one item that its
/// own tool removes.
class SimulatorsScanner final : public CategoryScanner {
public:
    /// Whether Apple's developer tools are there is told by any of these.
    explicit SimulatorsScanner(std::vector<FileURL> developerTools = standardDeveloperTools())
        : developerTools_(std::move(developerTools)) {}

    /// Where the developer tools are installed on a Mac.
    static std::vector<FileURL> standardDeveloperTools();

    /// One device as the tool lists it.
    struct Device {
        std::string name;
        std::string udid;
        std::string dataPath; ///< of its data, in the folder that is the device
        bool operator==(const Device &) const = default;
    };

    /// The devices in a listing (JSON), those of each runtime in its order, the runtimes sorted by
    /// identifier. None when any of it is not as expected.
    static std::vector<Device> parseUnavailable(std::string_view listing);

    const CategoryInfo &info() const override;
    /// Without the developer tools, asking for the tool would make a Mac offer to install them.
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    std::vector<FileURL> developerTools_;
};

} // namespace klarbox
