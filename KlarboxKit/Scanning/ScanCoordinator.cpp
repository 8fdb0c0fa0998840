#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include "KlarboxKit/Scanning/PathTree.hpp"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace klarbox {

namespace {

/// Drops what the person excluded and what an earlier item already claims.
void tidy(std::vector<CategoryScan> &scans, const ScanContext &context) {
    PathTree excluded;
    for (const auto &path : context.settings.excludedPaths) {
        excluded.insert(PathTree::components(context.expand(path)));
    }
    PathTree claimed;
    for (auto &scan : scans) {
        std::erase_if(scan.items, [&](const KlarboxItem &item) {
            std::vector<PathTree::Components> paths;
            for (const auto &url : item.target.paths()) {
                paths.push_back(PathTree::components(url));
            }
            for (const auto &path : paths) {
                if (excluded.touches(path) || claimed.covers(path)) {
                    return true;
                }
            }
            for (const auto &path : paths) {
                claimed.insert(path);
            }
            return false;
        });
    }
}

/// An empty category that says why; what happens to one scanner costs the others nothing.
CategoryScan failed(const CategoryScanner &scanner, const char *why) {
    return {.info = scanner.info(), .issues = {ScanIssue::failed(why)}};
}

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
    void fill(std::size_t position, const CategoryScanner &scanner, const ScanContext &context,
              const std::stop_token &stop) noexcept {
        try {
            scans_[position] = scanned(scanner, context, stop);
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

std::vector<CategoryScan>
ScanCoordinator::scan(const ScanContext &context,
                      const std::function<void(const ScanProgress &)> &progress,
                      std::stop_token stop) const {
    ScannerList relevant;
    for (const auto &scanner : scanners_) {
        if (scanner->isRelevant(context)) {
            relevant.push_back(scanner);
        }
    }
    const auto total = static_cast<std::int64_t>(relevant.size());
    progress({.completed = 0, .total = total});

    Results results(relevant);
    std::vector<std::jthread> threads;
    threads.reserve(relevant.size());
    for (std::size_t position = 0; position < relevant.size(); ++position) {
        const auto run = [&, position] {
            results.fill(position, *relevant[position], context, stop);
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
    tidy(scans, context);
    return scans;
}

} // namespace klarbox
