#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include "KlarboxKit/Platform/Text.hpp"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace klarbox {

namespace {

/// Locations by their folded components, so that a question costs the length of the path asked
/// about, however many locations are held.
class PathTree {
public:
    void insert(const std::vector<std::string> &components) {
        Node *node = &root_;
        for (const auto &component : components) {
            node = &node->children[component];
        }
        node->isMember = true;
    }

    /// Whether a member equals the path or holds it.
    bool covers(const std::vector<std::string> &components) const {
        return walk(components).metMember;
    }

    /// Whether a member equals the path, holds it, or lies inside it.
    bool touches(const std::vector<std::string> &components) const {
        const auto [metMember, end] = walk(components);
        return metMember || end != nullptr;
    }

private:
    struct Node {
        std::map<std::string, Node, std::less<>> children;
        bool isMember = false;
    };

    struct Walk {
        bool metMember;
        const Node *end; ///< where the path ends in the tree; null when it leaves the tree before
    };

    Walk walk(const std::vector<std::string> &components) const {
        const Node *node = &root_;
        for (const auto &component : components) {
            if (node->isMember) {
                return {true, nullptr};
            }
            const auto next = node->children.find(component);
            if (next == node->children.end()) {
                return {false, nullptr};
            }
            node = &next->second;
        }
        // The root node of an empty tree is the end of the empty path but holds nothing.
        const bool holdsAny = node->isMember || !node->children.empty();
        return {node->isMember, holdsAny ? node : nullptr};
    }

    Node root_;
};

std::vector<std::string> foldedComponents(const FileURL &url) {
    return Text::foldedPathComponents(url.standardized().path());
}

/// Drops what the person excluded and what an earlier item already claims.
void tidy(std::vector<CategoryScan> &scans, const ScanContext &context) {
    PathTree excluded;
    for (const auto &path : context.settings.excludedPaths) {
        excluded.insert(foldedComponents(context.expand(path)));
    }
    PathTree claimed;
    for (auto &scan : scans) {
        std::erase_if(scan.items, [&](const KlarboxItem &item) {
            std::vector<std::vector<std::string>> paths;
            for (const auto &url : item.target.paths()) {
                paths.push_back(foldedComponents(url));
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
        threads.emplace_back([&, position, scanner = relevant[position]] {
            finished.put(position, scanner->scan(context, stop));
        });
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
