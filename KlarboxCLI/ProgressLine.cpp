#include "KlarboxCLI/ProgressLine.hpp"

#include "KlarboxKit/Platform/Text.hpp"

namespace klarbox {

namespace {

constexpr std::string_view eraseLine = "\r\x1b[K";

/// Progress is a courtesy: when nobody reads it any more, work goes on.
void draw(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace

void ProgressLine::show(std::string_view text) {
    const std::lock_guard lock(mutex_);
    if (!enabled_) {
        return;
    }
    // The last column stays free: a full line would wrap and could not be erased.
    const auto width = style_.width > 1 ? style_.width - 1 : 1;
    draw(std::string(eraseLine) + Text::middleTruncated(Text::visible(text), width));
    isShown_ = true;
}

void ProgressLine::clear() {
    const std::lock_guard lock(mutex_);
    if (isShown_) {
        draw(eraseLine);
        isShown_ = false;
    }
}

void ProgressLine::close() {
    clear();
    const std::lock_guard lock(mutex_);
    enabled_ = false;
}

} // namespace klarbox
