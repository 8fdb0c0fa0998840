#include "KlarboxCLI/CleanObstacles.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/SaturatingAdd.hpp"

#include <algorithm>
#include <map>
#include <string_view>

#include <fmt/format.h>

namespace klarbox {

namespace {

struct Wording {
    std::string_view what;
    std::string_view remedy;
};

Wording wording(CleanObstacles::Kind kind) {
    switch (kind) {
    case CleanObstacles::Kind::readOnlyDisk:
        return {"on a disk that is mounted read-only", "Mount it writable to clean them."};
    case CleanObstacles::Kind::missingHelper:
        return {"of the system", "The Klarbox helper is not installed: install it, or run klarbox "
                                 "with sudo, to clean them."};
    case CleanObstacles::Kind::onlyRoot:
        return {"of the system of another disk", "Run klarbox with sudo to clean them."};
    }
    return {};
}

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

std::vector<std::string> CleanObstacles::remarks(std::span<const KlarboxItem> items) const {
    struct Sum {
        std::size_t count = 0;
        std::int64_t bytes = 0;
    };
    std::map<Kind, Sum> sums;
    for (const auto &item : items) {
        if (const auto kind = of(item)) {
            auto &sum = sums[*kind];
            ++sum.count;
            sum.bytes = saturatingAdd(sum.bytes, item.size);
        }
    }
    std::vector<std::string> sentences;
    for (const auto &[kind, sum] : sums) {
        const auto &[what, remedy] = wording(kind);
        sentences.push_back(fmt::format("Not cleanable here: {}, {}, {}. {}",
                                        DisplayText::count(sum.count, "item"),
                                        DisplayText::size(sum.bytes), what, remedy));
    }
    return sentences;
}

} // namespace klarbox
