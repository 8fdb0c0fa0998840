#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace klarbox {

/// "docker": what Docker says its build cache and its untagged, unused image layers would give
/// back. Volumes and tagged images are never offered.
class DockerScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

    /// The reclaimable bytes per type of the disk-usage report, one JSON object a line. Lines that
    /// are none are passed over, sizes that cannot be read count as 0.
    static std::map<std::string, std::int64_t, std::less<>> parseSystemDF(std::string_view report);

private:
    /// The tool, also where its applications keep it outside the usual folders.
    static std::optional<FileURL> docker(const ScanContext &context);
};

} // namespace klarbox
