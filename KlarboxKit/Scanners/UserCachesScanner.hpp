#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <optional>
#include <string>

namespace klarbox {

/// "user-caches": each entry of the person's Library/Caches but for those of developer tools, which
/// have categories of their own, and the one of the running program itself.
class UserCachesScanner final : public CategoryScanner {
public:
    /// `ownBundleID` is the bundle identifier of the running program, if it has one.
    explicit UserCachesScanner(std::optional<std::string> ownBundleID = std::nullopt)
        : ownBundleID_(std::move(ownBundleID)) {}

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    std::optional<std::string> ownBundleID_;
};

} // namespace klarbox
