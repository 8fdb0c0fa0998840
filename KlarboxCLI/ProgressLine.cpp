#include "KlarboxCLI/ProgressLine.hpp"

#include "KlarboxKit/Platform/Text.hpp"

namespace klarbox {

namespace {

constexpr std::string_view eraseLine = "\r\x1b[K";

} // namespace

void ProgressLine::show(std::string_view text) {
    const std::lock_guard lock(mutex_);
    if (!enabled_) {
        return;
    }
    // The last column stays free: a full line would wrap and could not be erased.
    const auto width = style_.width > 1 ? style_.width - 1 : 1;
    tell(std::string(eraseLine) + Text::middleTruncated(Text::visible(text), width));
    isShown_ = true;
}

void ProgressLine::clear() {
    const std::lock_guard lock(mutex_);
    if (isShown_) {
        tell(eraseLine);
        isShown_ = false;
    }
}

void ProgressLine::close() {
    clear();
    const std::lock_guard lock(mutex_);
    enabled_ = false;
}

} // namespace klarbox
