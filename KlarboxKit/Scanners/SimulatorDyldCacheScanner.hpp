#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <vector>

namespace klarbox {

/// "simulator-dyld-caches": the shared-library cache of each Simulator runtime, removed by the
/// helper.
class SimulatorDyldCacheScanner final : public CategoryScanner {
public:
    /// `root` is the machine-wide folder of shared-library caches.
    explicit SimulatorDyldCacheScanner(FileURL root) : root_(std::move(root)) {}

    /// The folders that are scanned.
    std::vector<FileURL> roots() const { return {root_}; }

    const CategoryInfo &info() const override;
    /// Whether the folder exists.
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    FileURL root_;
};

} // namespace klarbox
