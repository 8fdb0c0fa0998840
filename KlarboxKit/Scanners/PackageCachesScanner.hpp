#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "package-caches": the folders in which package managers keep downloads, each by its contents,
/// and the folders of the npx cache that no running tool uses.
class PackageCachesScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    /// Whether any of the folders exists.
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
