#include "KlarboxApp/Scan/ScanMeter.hpp"

#include "KlarboxKit/Foundation/SaturatingAdd.hpp"

namespace klarbox {

void ScanMeter::note(const ScanEvent &event) {
    const std::lock_guard lock(mutex_);
    if (event.found == nullptr) {
        activity_.running.push_back(event.category.title);
    } else {
        std::erase(activity_.running, event.category.title);
        activity_.bytesFound = saturatingAdd(activity_.bytesFound, event.found->totalSize());
    }
    tell();
}

void ScanMeter::note(const ScanProgress &progress) {
    const std::lock_guard lock(mutex_);
    activity_.completed = progress.completed;
    activity_.total = progress.total;
    tell();
}

void ScanMeter::tell() const {
    if (watch_) {
        watch_(activity_);
    }
}

} // namespace klarbox
