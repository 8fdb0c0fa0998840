#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace klarbox {

/// "orphaned-containers": folders of the person's Library/Containers whose application, and whose
/// application's parent, is no longer installed. Needs Full Disk Access.
class OrphanedContainersScanner final : public CategoryScanner {
public:
    /// `ownBundleID` is the bundle identifier of the running program, if it has one.
    explicit OrphanedContainersScanner(std::optional<std::string> ownBundleID = std::nullopt)
        : ownBundleID_(std::move(ownBundleID)) {}

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

    /// The bundle identifier that a container's metadata names; the folder's name without.
    static std::string bundleIdentifier(const FileURL &container);

    /// Whether `lookup` knows an application of this bundle identifier, or of one that is left when
    /// components are dropped from its end, down to two: extensions and helpers belong to the
    /// application that brought them.
    static bool
    isInstalled(std::string_view bundleID,
                const std::function<std::optional<std::string>(std::string_view)> &lookup);

private:
    std::optional<std::string> ownBundleID_;
};

} // namespace klarbox
