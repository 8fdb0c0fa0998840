#include "KlarboxCLI/ProgressLine.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

constexpr std::string_view eraseToEnd = "\x1b[K";

} // namespace

void ProgressLine::show(std::string_view text) {
    const std::lock_guard lock(mutex_);
    if (!enabled_) {
        return;
    }
    text_ = Text::visible(text);
    remark_.clear();
    draw();
    isShown_ = true;
}

void ProgressLine::show(const ScanActivity &activity) {
    show(fmt::format("Scanning: {} of {} done, {} found{}{}", activity.completed, activity.total,
                     DisplayText::size(activity.bytesFound), activity.running.empty() ? "" : " · ",
                     fmt::join(activity.running, ", ")));
}

void ProgressLine::remark(std::string_view text) {
    const std::lock_guard lock(mutex_);
    if (isShown_ && text != remark_) {
        remark_ = text;
        draw();
    }
}

void ProgressLine::draw() {
    // The last column stays free: a full line would wrap and could not be erased.
    const auto width = style_.width > 1 ? style_.width - 1 : 1;
    // What stays the same is written over itself and not erased first, or it would flicker.
    tell("\r" + Text::middleTruncated(text_ + remark_, width) + std::string(eraseToEnd));
}

void ProgressLine::clear() {
    const std::lock_guard lock(mutex_);
    if (isShown_) {
        tell("\r" + std::string(eraseToEnd));
        isShown_ = false;
    }
}

void ProgressLine::close() {
    clear();
    const std::lock_guard lock(mutex_);
    enabled_ = false;
}

} // namespace klarbox
