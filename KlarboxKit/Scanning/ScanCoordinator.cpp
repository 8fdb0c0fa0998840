#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include "KlarboxKit/Scanning/PathTree.hpp"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>
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

/// What the scanner finds; an issue when it throws, which costs the others nothing.
CategoryScan scanned(const CategoryScanner &scanner, const ScanContext &context,
                     std::stop_token stop) {
    try {
        return scanner.scan(context, std::move(stop));
    } catch (const std::exception &error) {
        return {.info = scanner.info(), .issues = {ScanIssue::failed(error.what())}};
    }
}

/// Hands results from the scanners' threads to the coordinator's own.
class Finished {
public:
    void put(std::size_t position, CategoryScan scan) {
        {
            const std::lock_guard lock(mutex_);
            queue_.emplace_back(position, std::move(scan));
        }
        arrived_.notify_one();
    }

    std::pair<std::size_t, CategoryScan> take() {
        std::unique_lock lock(mutex_);
        arrived_.wait(lock, [&] { return !queue_.empty(); });
        auto next = std::move(queue_.front());
        queue_.pop_front();
        return next;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::pair<std::size_t, CategoryScan>> queue_;
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

    Finished finished;
    std::vector<std::jthread> threads;
    threads.reserve(relevant.size());
    for (std::size_t position = 0; position < relevant.size(); ++position) {
        const auto run = [&, position, scanner = relevant[position]] {
            finished.put(position, scanned(*scanner, context, stop));
        };
        try {
            threads.emplace_back(run);
        } catch (const std::system_error &) {
            run(); // no more threads to be had: one after the other then
        }
    }

    std::vector<std::optional<CategoryScan>> byPosition(relevant.size());
    for (std::int64_t completed = 1; completed <= total; ++completed) {
        auto [position, scan] = finished.take();
        progress({.completed = completed, .total = total, .finished = scan.info});
        byPosition[position] = std::move(scan);
    }

    std::vector<CategoryScan> scans;
    scans.reserve(byPosition.size());
    for (auto &scan : byPosition) {
        scans.push_back(*std::move(scan));
    }
    tidy(scans, context);
    return scans;
}

} // namespace klarbox
