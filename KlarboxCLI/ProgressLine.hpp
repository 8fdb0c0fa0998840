#pragma once

#include "KlarboxCLI/Terminal.hpp"

#include <mutex>
#include <string>
#include <string_view>

namespace klarbox {

/// One line on standard error that is drawn over itself. Draws nothing when disabled. Safe from any
/// thread.
class ProgressLine {
public:
    ProgressLine(OutputStyle style, bool enabled) : style_(style), enabled_(enabled) {}
    ~ProgressLine() { clear(); }
    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    /// Replaces what the line shows, cut to the terminal's width.
    void show(std::string_view text);

    /// Takes the line away.
    void clear();

    /// Takes the line away for good; later calls draw nothing.
    void close();

private:
    OutputStyle style_;
    std::mutex mutex_;
    bool enabled_;
    bool isShown_ = false;
};

} // namespace klarbox
