#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace klarbox {

/// When to use colour, as the person asked for it.
enum class ColorChoice { automatic, always, never };

/// What one output stream can show.
struct OutputStyle {
    bool canErase = false; ///< a terminal on which a line can be drawn over
    std::size_t width = 0; ///< columns; 0 when lines need not fit anything
    bool color = false;

    /// Looks at the stream and at `NO_COLOR`; an explicit choice wins over both.
    static OutputStyle of(std::FILE *stream, ColorChoice color);

    /// The text in bold, dimmed, or in a warning colour; unchanged without colour.
    std::string bold(std::string_view text) const { return styled("1", text); }
    std::string dim(std::string_view text) const { return styled("2", text); }
    std::string green(std::string_view text) const { return styled("32", text); }
    std::string yellow(std::string_view text) const { return styled("33", text); }
    std::string red(std::string_view text) const { return styled("31", text); }

private:
    std::string styled(std::string_view code, std::string_view text) const;
};

/// Keeps the numbers of standard streams that this process was started without from going to files
/// that are opened later, which output would then land in; using such a stream fails. To be called
/// before anything is opened.
void occupyStandardStreams();

/// Writes all of `text`. Throws `std::system_error` when the stream takes it no more.
void write(std::FILE *stream, std::string_view text);

/// Writes to standard error what work does not depend on: when nobody reads it, work goes on.
void tell(std::string_view text);

/// Asks on standard error, and returns the line that is then typed on standard input, a terminal,
/// without its end; empty when the input ends before a line does. Whatever was typed before the
/// question's last line stood there was meant for something else: it is dropped. Throws
/// `std::system_error` when it cannot be dropped, or nothing can be asked.
std::string ask(std::string_view question);

} // namespace klarbox
