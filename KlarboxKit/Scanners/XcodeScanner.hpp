#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <string>
#include <string_view>

namespace klarbox {

/// "xcode": what Xcode and the Simulator keep in the person's Library/Developer: build folders,
/// device support files, archives and caches.
class XcodeScanner final : public CategoryScanner {
public:
    /// The project that a folder of DerivedData belongs to: its name without the hash at its end.
    static std::string projectName(std::string_view derivedDataName);

    const CategoryInfo &info() const override;
    /// Whether Xcode or the Simulator ever ran for this person.
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
