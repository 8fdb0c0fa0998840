#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include "KlarboxKit/Scanning/Exclusions.hpp"
#include "KlarboxKit/Scanning/PathTree.hpp"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace klarbox {

namespace {

/// Judges what the scanners found: by what the person excluded, and by what another category holds
/// that the person excluded as a whole.
class Judge {
public:
    explicit Judge(const ScanContext &context)
        : excluded_(context.home, context.settings.excludedPaths),
          keptBack_(context.keptBack) {}

    bool excludesCategory(std::string_view id) const { return excluded_.excludesCategory(id); }

    /// Empties a category that is excluded; what it held no other may offer.
    void withdraw(CategoryScan &scan) {
        for (const auto &item : scan.items) {
            for (const auto &url : item.target.paths()) {
                withdrawn_.insert(PathTree::components(url));
            }
        }
        count(scan.items.size());
        scan.items.clear();
    }

    /// Drops what the person excluded and what an earlier item already claims.
    void tidy(CategoryScan &scan) {
        std::erase_if(scan.items, [&](const KlarboxItem &item) {
            std::vector<PathTree::Components> paths;
            for (const auto &url : item.target.paths()) {
                paths.push_back(PathTree::components(url));
                if (isExcluded(item.target, url, paths.back())) {
                    count(1);
                    return true;
                }
            }
            if (std::ranges::any_of(paths,
                                    [&](const auto &path) { return claimed_.covers(path); })) {
                return true;
            }
            for (const auto &path : paths) {
                claimed_.insert(path);
            }
            return false;
        });
    }

private:
    /// As a clean would judge: by the path as written and by where it really is.
    bool isExcluded(const KlarboxTarget &target, const FileURL &url,
                    const PathTree::Components &path) {
        if (withdrawn_.touches(path)) {
            return true;
        }
        if (excluded_.isEmpty()) {
            return false;
        }
        // What is emptied is what a link leads to; what is removed is the link.
        const bool isEmptied = std::holds_alternative<KlarboxTarget::Contents>(target.value());
        return excluded_.touches(url) || excluded_.touches(links_.resolved(url, isEmptied));
    }

    void count(std::size_t findings) const {
        if (keptBack_) {
            keptBack_->byExclusions += static_cast<std::int64_t>(findings);
        }
    }

    Exclusions excluded_;
    LinkMemo links_;
    PathTree withdrawn_;
    PathTree claimed_;
    std::shared_ptr<KeptBack> keptBack_;
};

/// An empty category that says why; what happens to one scanner costs the others nothing.
CategoryScan failed(const CategoryScanner &scanner, const char *why) {
    return {.info = scanner.info(), .issues = {ScanIssue::failed(why)}};
}

using Watch = std::function<void(const ScanEvent &)>;

/// Where the scanners' threads leave what they found for the coordinator's own. Its room is taken
/// before they start, so that one without memory can still end in order.
class Results {
public:
    explicit Results(const ScannerList &scanners) {
        finished_.reserve(scanners.size());
        for (const auto &scanner : scanners) {
            scans_.push_back(failed(*scanner, "Out of memory"));
        }
    }

    /// Runs the scanner at a position.
    void fill(std::size_t position, const CategoryScanner &scanner, const Watch &watch,
              const ScanContext &context, const std::stop_token &stop) noexcept {
        try {
            if (watch) {
                watch({.category = scanner.info(), .found = nullptr});
            }
            scans_[position] = scanned(scanner, context, stop);
            if (watch) {
                watch({.category = scanner.info(), .found = &scans_[position]});
            }
        } catch (const std::bad_alloc &) {
            // Its place says so already.
        }
        {
            const std::lock_guard lock(mutex_);
            finished_.push_back(position);
        }
        arrived_.notify_one();
    }

    /// The place of the scan that was the `count`-th to finish; waits for it.
    const CategoryScan &finished(std::size_t count) {
        std::unique_lock lock(mutex_);
        arrived_.wait(lock, [&] { return finished_.size() > count; });
        return scans_[finished_[count]];
    }

    std::vector<CategoryScan> take() { return std::move(scans_); }

private:
    static CategoryScan scanned(const CategoryScanner &scanner, const ScanContext &context,
                                const std::stop_token &stop) {
        try {
            return scanner.scan(context, stop);
        } catch (const std::bad_alloc &) {
            throw;
        } catch (const std::exception &error) {
            return failed(scanner, error.what());
        }
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<CategoryScan> scans_;
    std::vector<std::size_t> finished_; ///< positions in order of finishing
};

} // namespace

std::vector<CategoryScan> ScanCoordinator::scan(
    const ScanContext &context, const std::function<void(const ScanProgress &)> &progress,
    std::stop_token stop, const std::function<void(const ScanEvent &)> &watch) const {
    ScannerList relevant;
    for (const auto &scanner : scanners_) {
        if (scanner->isRelevant(context)) {
            relevant.push_back(scanner);
        }
    }
    const auto total = static_cast<std::int64_t>(relevant.size());
    progress({.completed = 0, .total = total});

    Judge judge(context);
    // Of a category that is left alone everything is, whatever its size.
    auto withdrawing = context;
    withdrawing.minimumSize = 0;
    withdrawing.keptBack = nullptr;
    Results results(relevant);
    std::vector<std::jthread> threads;
    threads.reserve(relevant.size());
    for (std::size_t position = 0; position < relevant.size(); ++position) {
        const auto run = [&, position] {
            const auto &scanner = *relevant[position];
            results.fill(position, scanner, watch,
                         judge.excludesCategory(scanner.info().id) ? withdrawing : context, stop);
        };
        try {
            threads.emplace_back(run);
        } catch (const std::exception &) {
            run(); // no more threads to be had: one after the other then
        }
    }

    for (std::int64_t completed = 1; completed <= total; ++completed) {
        const auto &scan = results.finished(static_cast<std::size_t>(completed - 1));
        progress({.completed = completed, .total = total, .finished = scan.info});
    }
    auto scans = results.take();
    for (auto &scan : scans) {
        if (judge.excludesCategory(scan.id())) {
            judge.withdraw(scan);
        }
    }
    for (auto &scan : scans) {
        judge.tidy(scan);
    }
    return scans;
}

} // namespace klarbox
