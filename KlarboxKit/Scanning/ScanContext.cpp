#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <algorithm>

namespace klarbox {

bool ScanEnvironment::isRunning(std::string_view marker) const {
    return std::ranges::any_of(runningCommandLines, [&](const std::string &line) {
        return line.find(marker) != std::string::npos;
    });
}

FileURL ScanContext::expand(std::string_view path) const {
    if (path == "~") {
        return home;
    }
    if (path.starts_with("~/")) {
        return home.appending(path.substr(2));
    }
    return FileURL(path);
}

std::int64_t ScanContext::daysSince(Date date) const {
    if (date >= environment.now) {
        return 0;
    }
    return std::chrono::duration_cast<std::chrono::days>(environment.now - date).count();
}

bool ScanContext::isLargeEnough(std::int64_t size) const {
    if (size >= minimumSize) {
        return true;
    }
    if (size > 0 && keptBack) {
        ++keptBack->bySize;
        keptBack->bytesBySize += size;
    }
    return false;
}

} // namespace klarbox
