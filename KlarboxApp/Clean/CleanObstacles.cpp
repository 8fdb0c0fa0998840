#include "KlarboxApp/Clean/CleanObstacles.hpp"

#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <algorithm>

namespace klarbox {

namespace {

/// The folders that lose entries when a target is removed.
std::vector<FileURL> changedFolders(const KlarboxTarget &target) {
    auto folders = target.paths();
    if (!std::holds_alternative<KlarboxTarget::Contents>(target.value())) {
        std::ranges::transform(folders, folders.begin(), &FileURL::parent);
    }
    return folders;
}

} // namespace

std::optional<CleanObstacles::Kind> CleanObstacles::of(const KlarboxItem &item) const {
    if (std::ranges::any_of(changedFolders(item.target), FileManager::isOnReadOnlyVolume)) {
        return Kind::readOnlyDisk;
    }
    if (item.requiresPrivileges && way_ == PrivilegedAccess::Way::missingHelper) {
        return Kind::missingHelper;
    }
    if (item.requiresPrivileges && way_ == PrivilegedAccess::Way::onlyRoot) {
        return Kind::onlyRoot;
    }
    return std::nullopt;
}

std::map<CleanObstacles::Kind, CleanObstacles::Sum>
CleanObstacles::sums(std::span<const KlarboxItem> items) const {
    std::map<Kind, Sum> sums;
    for (const auto &item : items) {
        if (const auto kind = of(item)) {
            auto &sum = sums[*kind];
            ++sum.count;
            sum.bytes = saturatingAdd(sum.bytes, item.size);
        }
    }
    return sums;
}

} // namespace klarbox
