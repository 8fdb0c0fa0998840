#pragma once

#include <algorithm>
#include <thread>

namespace klarbox {

/// Processors that threads of this process may share, at least 1. The system is asked once for the
/// life of the process: it reads a file to answer. Safe from any thread.
inline unsigned processorCount() {
    static const unsigned count = std::max(std::thread::hardware_concurrency(), 1U);
    return count;
}

} // namespace klarbox
