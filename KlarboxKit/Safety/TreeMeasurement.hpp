#pragma once

#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FileIDSet.hpp"
#include "KlarboxKit/Walking/Walk.hpp"

#include <atomic>
#include <cstdint>

namespace klarbox {

/// One measurement: what the visitors of its walk share. Other file systems are not entered; what
/// is mounted of the same one is, but for a folder that leads back to itself.
///
/// The owner visits the first entries by itself in the order of the listings, so that the first
/// question whether to stop comes at an exact entry.
class TreeMeasurement final : public Walk {
public:
    /// Entries visited between two questions whether to stop, and before the first.
    static constexpr std::int64_t checkInterval = 2048;

    /// Of what lies in the open folder `givenIn`, or at absolute paths with AT_FDCWD. The test must
    /// outlive the measurement.
    TreeMeasurement(int givenIn, const DiskUsage::CancellationTest &isCancelled)
        : Walk(Purpose::look, givenIn, {}, isCancelled) {}

    /// Bytes allocated to all that was given.
    std::int64_t run(EntryList given);

private:
    class Visitor;

    void advance(Walker &walker) override;
    void ask() override;

    std::atomic<bool> entersMounts_ = false; ///< of folders on the same file system
    std::atomic<std::int64_t> total_ = 0;    ///< bytes, of walkers that are done
    std::atomic<std::int64_t> visited_ = 0;  ///< entries
    std::int64_t nextCheck_ = checkInterval; ///< for the owner
    FileIDSet counted_;                      ///< files with several links
};

} // namespace klarbox
