#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <vector>

namespace klarbox {

/// "system-logs": the machine-wide logs of two folders but for crash reports, removed by the
/// helper.
class SystemLogsScanner final : public CategoryScanner {
public:
    SystemLogsScanner(FileURL libraryLogs, FileURL systemLogs)
        : libraryLogs_(std::move(libraryLogs)),
          systemLogs_(std::move(systemLogs)) {}

    /// The folders that are scanned.
    std::vector<FileURL> roots() const { return {libraryLogs_, systemLogs_}; }

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    FileURL libraryLogs_;
    FileURL systemLogs_;
};

} // namespace klarbox
