#include "KlarboxKit/Safety/TreeMeasurement.hpp"

#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/ThreadWaits.hpp"
#include "KlarboxKit/Walking/ProcessorCount.hpp"
#include "KlarboxKit/Walking/TreeVisitor.hpp"
#include "KlarboxKit/Walking/Walker.hpp"
#include "KlarboxKit/Walking/WalkerPool.hpp"

#include <chrono>
#include <optional>
#include <utility>

namespace klarbox {

namespace {

/// Entries after which a visitor that is not alone brings the shared counter up to date and looks
/// whether it was stopped: often enough to stop soon, seldom enough not to be felt.
constexpr std::int64_t sharedInterval = 256;

/// From the kernel's cache an entry takes a microsecond or two. Whoever needs this long for each,
/// and slept so often meanwhile, waits for the disk; who only took long waits for a processor.
constexpr std::chrono::microseconds slowEntry{20};
constexpr std::int64_t entriesPerWait = 64;

} // namespace

class TreeMeasurement::Visitor final : public TreeVisitor {
public:
    explicit Visitor(TreeMeasurement &measurement)
        : measurement_(measurement),
          interval_(measurement.isShared() ? sharedInterval : checkInterval),
          left_(interval_) {
        if (measurement.isShared()) {
            beginInterval();
        }
    }

    /// Adds what was measured to the whole.
    void finish() {
        measurement_.total_.fetch_add(total_, std::memory_order_relaxed);
        reportVisits();
    }

    bool isStopped() override { return isStopped_; }
    std::optional<SeenFolder> visit(Walker &walker, WalkedFolder &folder,
                                    const EntryList::Entry &entry) override;
    void list(Walker &walker, WalkedFolder &folder, DirectoryReader &reader) override;
    /// It counts twice all the same.
    void refused(WalkedFolder &, const EntryList::Entry &, int) override { count(); }
    void leave(Walker &, WalkedFolder &, const WalkedFolder &) override { count(); }

private:
    std::optional<SeenFolder> measure(const Walker &walker, const WalkedFolder &folder,
                                      const char *name, DirectoryEntry::Kind kind);
    bool leadsBack(const Walker &walker, const FileStatus &status);
    static void keepLot(WalkedFolder &folder, DirectoryReader &reader);
    static bool giveLot(Walker &walker, WalkedFolder &folder, DirectoryReader &reader);

    /// Counts a visit. False when the walk is to stop before the entry is measured.
    bool count() { return --left_ > 0 || endInterval(); }
    bool endInterval();
    void beginInterval();
    void reportVisits();

    TreeMeasurement &measurement_;
    std::int64_t total_ = 0;
    std::int64_t interval_; ///< entries until the shared counter is brought up to date
    std::int64_t left_;     ///< of those, still to come
    bool isStopped_ = false;
    std::chrono::steady_clock::time_point intervalBegan_;
    std::int64_t waitsBefore_ = 0; ///< the interval
};

/// Brings the shared counter up to date.
void TreeMeasurement::Visitor::reportVisits() {
    measurement_.visited_.fetch_add(interval_ - left_, std::memory_order_relaxed);
    left_ = interval_;
}

void TreeMeasurement::Visitor::beginInterval() {
    intervalBegan_ = std::chrono::steady_clock::now();
    waitsBefore_ = threadWaits();
}

bool TreeMeasurement::Visitor::endInterval() {
    reportVisits();
    if (measurement_.isOwner()) {
        measurement_.ask();
    }
    if (!measurement_.isShared()) {
        measurement_.getHelp(processorCount() - 1); // the owner walks too
        interval_ = sharedInterval;
    } else {
        const auto passed = std::chrono::steady_clock::now() - intervalBegan_;
        const auto waits = threadWaits() - waitsBefore_;
        if (passed > slowEntry * interval_ && waits * entriesPerWait > interval_) {
            WalkerPool::shared().reportSlowDisk();
        }
    }
    beginInterval();
    left_ = interval_;
    isStopped_ = measurement_.isStopped();
    return !isStopped_;
}

std::optional<SeenFolder> TreeMeasurement::Visitor::visit(Walker &walker, WalkedFolder &folder,
                                                          const EntryList::Entry &entry) {
    if (entry.isMarked) { // by `list`, which measured it
        return SeenFolder{folder.device, entry.tag, true};
    }
    return measure(walker, folder, entry.name, DirectoryEntry::Kind::unknown);
}

/// Visits an entry. Answers what it is when it is a folder that is to be entered.
std::optional<SeenFolder> TreeMeasurement::Visitor::measure(const Walker &walker,
                                                            const WalkedFolder &folder,
                                                            const char *name,
                                                            DirectoryEntry::Kind kind) {
    if (!count()) {
        return std::nullopt;
    }
    const int descriptor = walker.descriptor(folder);
    const auto status = kind == DirectoryEntry::Kind::other ? FileStatus::ofFile(descriptor, name)
                                                            : FileStatus::of(descriptor, name);
    if (!status) {
        return std::nullopt;
    }
    if (!status->isDirectory) {
        if (status->links <= 1 || measurement_.counted_.insert({status->device, status->inode})) {
            total_ = saturatingAdd(total_, status->allocatedBytes);
        }
        return std::nullopt;
    }
    total_ = saturatingAdd(total_, status->allocatedBytes);
    const bool isGiven = !folder.descriptor; // and may lie on any file system
    if (!isGiven && (status->device != folder.device || status->mountsWhenEntered)) {
        count(); // on the way back
        return std::nullopt;
    }
    if (!isGiven && leadsBack(walker, *status)) {
        return std::nullopt;
    }
    return SeenFolder{status->device, status->inode, status->mayBeMountRoot};
}

/// Whether a folder stands in itself. It can only where it, or one above it, is mounted: only from
/// there on is it worth the look.
bool TreeMeasurement::Visitor::leadsBack(const Walker &walker, const FileStatus &status) {
    auto &entersMounts = measurement_.entersMounts_;
    if (!status.mayBeMountRoot && !entersMounts.load(std::memory_order_relaxed)) {
        return false;
    }
    if (walker.isAncestor(status)) {
        return true;
    }
    entersMounts.store(true, std::memory_order_relaxed);
    return false;
}

/// Alone, entries are taken one by one, each folder entered where it stands in the listing. With
/// others, everything is visited at once and the folders are kept: they can be given away.
void TreeMeasurement::Visitor::list(Walker &walker, WalkedFolder &folder, DirectoryReader &reader) {
    if (!measurement_.isShared()) {
        keepLot(folder, reader);
        return;
    }
    bool isFirstLot = true;
    bool isLast = false;
    for (; !isStopped_ && !isLast && reader.fill(folder.descriptor.get());
         isLast = reader.isAtEnd()) {
        // A folder that takes several lots is worth more than one walker.
        if (!std::exchange(isFirstLot, false) && measurement_.wantsShare() &&
            giveLot(walker, folder, reader)) {
            continue;
        }
        for (DirectoryEntry entry; !isStopped_ && reader.next(entry);) {
            if (const auto found = measure(walker, folder, entry.name, entry.kind)) {
                folder.entries.append(entry.name, found->inode, true);
            }
        }
    }
    folder.isListed = true;
}

void TreeMeasurement::Visitor::keepLot(WalkedFolder &folder, DirectoryReader &reader) {
    folder.isListed = !reader.fill(folder.descriptor.get());
    for (DirectoryEntry entry; reader.next(entry);) {
        folder.entries.append(entry.name, 0, false);
    }
    folder.isListed = folder.isListed || reader.isAtEnd();
}

bool TreeMeasurement::Visitor::giveLot(Walker &walker, WalkedFolder &folder,
                                       DirectoryReader &reader) {
    auto other = walker.forPartOf(folder);
    if (other.empty()) {
        return false;
    }
    for (DirectoryEntry entry; reader.next(entry);) {
        other.front().entries().append(entry.name, 0, false);
    }
    WalkerPool::shared().give(std::move(other));
    return true;
}

std::int64_t TreeMeasurement::run(EntryList given) {
    WalkedFolder start;
    start.entries = std::move(given);
    Walk::run(std::move(start));
    ask(); // what was visited last is asked about too
    return total_;
}

void TreeMeasurement::advance(Walker &walker) {
    Visitor visitor(*this);
    walker.run(visitor);
    visitor.finish();
}

void TreeMeasurement::ask() {
    // Others may have come further than one interval since the last time.
    while (isCancelled_ && visited_.load(std::memory_order_relaxed) >= nextCheck_ && !isStopped()) {
        nextCheck_ += checkInterval;
        if (isCancelled_()) {
            stop();
        }
    }
}

} // namespace klarbox
