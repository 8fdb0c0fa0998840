#pragma once

#include "KlarboxApp/Scan/ScanMeter.hpp"
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

    /// Shows what is going on during a scan.
    void show(const ScanActivity &activity);

    /// Puts a remark behind what the line shows, in the place of an earlier one; an empty one takes
    /// it away. Nothing when the line shows nothing.
    void remark(std::string_view text);

    /// Takes the line away.
    void clear();

    /// Takes the line away for good; later calls draw nothing.
    void close();

private:
    void draw();

    OutputStyle style_;
    std::mutex mutex_;
    bool enabled_;
    bool isShown_ = false;
    std::string text_;
    std::string remark_;
};

} // namespace klarbox
