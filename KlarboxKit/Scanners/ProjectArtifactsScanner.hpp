#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "project-artifacts": build output and downloaded dependencies inside the code projects that lie
/// directly in the settings' project roots. Source code is never offered.
class ProjectArtifactsScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    /// Whether any of the project roots is a folder.
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
