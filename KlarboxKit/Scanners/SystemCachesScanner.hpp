#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <vector>

namespace klarbox {

/// "system-caches": each entry of the machine-wide caches folder, removed by the helper.
class SystemCachesScanner final : public CategoryScanner {
public:
    /// `root` is the machine-wide caches folder.
    explicit SystemCachesScanner(FileURL root) : root_(std::move(root)) {}

    /// The folders that are scanned.
    std::vector<FileURL> roots() const { return {root_}; }

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    FileURL root_;
};

} // namespace klarbox
