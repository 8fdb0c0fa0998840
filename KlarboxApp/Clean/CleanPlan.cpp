#include "KlarboxApp/Clean/CleanPlan.hpp"

#include "KlarboxKit/Foundation/SaturatingAdd.hpp"

#include <algorithm>
#include <utility>
#include <variant>

namespace klarbox {

CleanPlan::CleanPlan(std::vector<KlarboxItem> selection, RemovalMode removalMode,
                     const CleanObstacles &obstacles)
    : items(std::move(selection)),
      mode(removalMode) {
    // The Trash is emptied before anything is moved there: nobody was asked about what comes anew.
    std::stable_partition(items.begin(), items.end(), [](const KlarboxItem &item) {
        return item.removalPolicy == RemovalPolicy::permanentOnly && !item.requiresPrivileges;
    });
    for (const auto &item : items) {
        if (obstacles.of(item)) {
            continue;
        }
        const std::size_t lasting = item.tier == SafetyTier::safe ? 0 : 1;
        bytes = saturatingAdd(bytes, item.size);
        ofTheSystem += item.requiresPrivileges ? 1 : 0;
        if (const auto *command = std::get_if<KlarboxTarget::Command>(&item.target.value())) {
            commands.push_back(command->action);
            irreplaceable += lasting;
        } else if (item.requiresPrivileges || mode == RemovalMode::deletePermanently ||
                   item.removalPolicy == RemovalPolicy::permanentOnly) {
            ++permanent;
            irreplaceable += lasting;
        } else {
            ++trashed;
        }
    }
}

} // namespace klarbox
