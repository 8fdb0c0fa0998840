#pragma once

#include "KlarboxApp/Clean/CleanPlan.hpp"
#include "KlarboxApp/Scan/ScanSession.hpp"
#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Model/CleanReport.hpp"
#include "KlarboxKit/Platform/XPCConnection.hpp"

#include <stop_token>

namespace klarbox {

/// What happens between a yes and a report. A plan is carried out with the scan's own places: its
/// exclusions count again, what is protected in its home is, no link leads out of its enclosures,
/// its Trash is moved to, and what belongs to the system goes by the way that there is.
class CleanSession {
public:
    /// Nothing is touched yet. `waiting` hears how long the helper takes for an answer, perhaps
    /// once more just after a request ran out of time. Throws `PlatformError` when a relative
    /// exclusion has no current folder.
    CleanSession(const ScanSession &scan, CleanPlan plan, XPCConnection::Waiting waiting = {});

    const CleanPlan &plan() const { return plan_; }

    /// See `Cleaner::clean`. Once.
    CleanReport run(const Cleaner::Progress &progress, std::stop_token stop) const {
        return cleaner_.clean(plan_.items, plan_.mode, progress, std::move(stop));
    }

private:
    CleanPlan plan_;
    Cleaner cleaner_;
};

} // namespace klarbox
