#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace klarbox {

/// "homebrew": what Homebrew itself says it would remove: old versions with cached downloads, and
/// dependencies that nothing needs any more.
class HomebrewScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

    /// The bytes that Homebrew's output says it would free or has freed; nothing when it says none.
    static std::optional<std::int64_t> parseKlarboxEstimate(std::string_view output);

    /// The folders of old versions that Homebrew's output says it could not remove, in its order.
    static std::vector<FileURL> unremovableKegs(std::string_view output);
};

} // namespace klarbox
