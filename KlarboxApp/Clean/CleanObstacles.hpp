#pragma once

#include "KlarboxApp/Privileged/PrivilegedAccess.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>

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

    /// Of several items.
    struct Sum {
        std::size_t count = 0;
        std::int64_t bytes = 0;
    };

    /// For each obstacle that any of the items has, those that have it.
    std::map<Kind, Sum> sums(std::span<const KlarboxItem> items) const;

private:
    PrivilegedAccess::Way way_;
};

} // namespace klarbox
