#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "installers": disk images and installer packages directly in the person's Downloads folder.
class InstallersScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
