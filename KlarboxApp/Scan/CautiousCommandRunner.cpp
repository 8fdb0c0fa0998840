#include "KlarboxApp/Scan/CautiousCommandRunner.hpp"

#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/PlacesOnTheWay.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

CautiousCommandRunner::CautiousCommandRunner(std::shared_ptr<const CommandRunning> base,
                                             const std::vector<FileURL> &folders, Locator named)
    : base_(std::move(base)),
      named_(std::move(named)) {
    for (const auto &folder : folders) {
        folders_.push_back(SafetyGuard::canonicalPath(folder.path()));
    }
}

CommandResult CautiousCommandRunner::run(const CommandAction &action,
                                         std::chrono::nanoseconds timeout,
                                         std::stop_token stop) const {
    const auto &written = action.executable;
    if (folders_.empty() || (named_ && named_(written.lastComponent()) == written)) {
        return base_->run(action, timeout, std::move(stop));
    }
    const auto isForeign = [&](const std::string &place) {
        return std::ranges::any_of(folders_, [&](const std::string &folder) {
            return SafetyGuard::isInside(place, folder);
        });
    };
    if (std::ranges::any_of(placesOnTheWay(written), isForeign)) {
        return {CommandResult::notStarted,
                fmt::format("“{}” is somebody else's program.", Text::visible(written.path()))};
    }
    // By the path that was found, as tools find what belongs to them by their own path. No link
    // on the way is anybody else's to change.
    return base_->run(action, timeout, std::move(stop));
}

} // namespace klarbox
