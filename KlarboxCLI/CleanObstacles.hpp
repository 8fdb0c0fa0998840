#pragma once

#include "KlarboxCLI/PrivilegedAccess.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace klarbox {

/// What keeps findings from being cleaned here, known before anything is tried. What has one stays
/// a finding, but does not start out selected and promises no space.
class CleanObstacles {
public:
    enum class Kind {
        readOnlyDisk,  ///< nothing on it can be removed
        missingHelper, ///< of this machine's system, without a helper or root's rights
        onlyRoot,      ///< of the system of another disk, which no helper is asked about
    };

    explicit CleanObstacles(PrivilegedAccess::Way way) : way_(way) {}

    /// Of one item: the first in the order above; nothing for an item that can be expected to go.
    /// Looks at the file system.
    std::optional<Kind> of(const KlarboxItem &item) const;

    /// Whether a clean takes the item unless told otherwise.
    bool startsOutSelected(const KlarboxItem &item) const {
        return item.isSelectedByDefault && !of(item);
    }

    /// For each obstacle that any of the items has: how many and how large they are, and how to get
    /// them cleaned.
    std::vector<std::string> remarks(std::span<const KlarboxItem> items) const;

private:
    PrivilegedAccess::Way way_;
};

} // namespace klarbox
