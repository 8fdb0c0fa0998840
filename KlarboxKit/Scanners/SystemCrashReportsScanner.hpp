#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <vector>

namespace klarbox {

/// "system-crash-reports": every visible machine-wide report, as one item, removed by the helper.
class SystemCrashReportsScanner final : public CategoryScanner {
public:
    /// `root` is the machine-wide diagnostic reports folder.
    explicit SystemCrashReportsScanner(FileURL root) : root_(std::move(root)) {}

    /// The folders that are scanned.
    std::vector<FileURL> roots() const { return {root_}; }

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    FileURL root_;
};

} // namespace klarbox
