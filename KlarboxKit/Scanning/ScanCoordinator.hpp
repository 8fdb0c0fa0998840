#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Model/ScanProgress.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <functional>
#include <stop_token>
#include <vector>

namespace klarbox {

/// What happens to one scanner.
struct ScanEvent {
    const CategoryInfo &category;
    const CategoryScan *found; ///< null when it begins; what it found, untidied, when it ended
};

/// Runs scanners side by side and tidies what they found: items that touch an excluded path, and
/// items equal to or inside one that an earlier item already claims, are dropped.
class ScanCoordinator {
public:
    explicit ScanCoordinator(ScannerList scanners) : scanners_(std::move(scanners)) {}

    /// Blocks until every relevant scanner has returned; one entry per relevant scanner, in the
    /// order of the list. `progress` is called on the calling thread, one call at a time: once
    /// before any scanner starts and once after each. A requested `stop` is passed on to the
    /// scanners, which then return early. `watch` is called on the scanners' own threads, several
    /// calls at a time, when each begins and ends, and may throw `std::bad_alloc` only. Throws
    /// `PlatformError` only when an excluded path is relative and there is no current folder.
    std::vector<CategoryScan> scan(const ScanContext &context,
                                   const std::function<void(const ScanProgress &)> &progress,
                                   std::stop_token stop = {},
                                   const std::function<void(const ScanEvent &)> &watch = {}) const;

private:
    ScannerList scanners_;
};

} // namespace klarbox
