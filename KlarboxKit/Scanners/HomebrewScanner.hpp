#pragma once

#include "KlarboxKit/Commands/HomebrewOutput.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "homebrew": what Homebrew itself says it would remove: old versions with cached downloads, and
/// dependencies that nothing needs any more.
class HomebrewScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

    /// See `HomebrewOutput`.
    static constexpr auto parseKlarboxEstimate = HomebrewOutput::parseKlarboxEstimate;
    static constexpr auto unremovableKegs = HomebrewOutput::unremovableKegs;
};

} // namespace klarbox
