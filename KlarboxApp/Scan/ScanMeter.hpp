#pragma once

#include "KlarboxKit/Model/ScanProgress.hpp"
#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace klarbox {

/// What is going on during a scan.
struct ScanActivity {
    std::int64_t completed = 0; ///< categories
    std::int64_t total = 0;
    std::int64_t bytesFound = 0;
    std::vector<std::string> running; ///< titles, in the order in which they began
};

/// Called whenever something changes, from several threads, one call at a time; may be empty.
using ScanWatch = std::function<void(const ScanActivity &)>;

/// Keeps count of a scan for whoever watches it. Safe from any thread.
class ScanMeter {
public:
    explicit ScanMeter(ScanWatch watch) : watch_(std::move(watch)) {}

    void note(const ScanEvent &event);
    void note(const ScanProgress &progress);

private:
    void tell() const;

    ScanWatch watch_;
    std::mutex mutex_;
    ScanActivity activity_;
};

} // namespace klarbox
