#include "KlarboxCLI/Terminal.hpp"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace klarbox {

namespace {

std::string_view environmentValue(const char *name) {
    // The environment is not changed after start. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char *value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::size_t terminalWidth(int fd) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    const auto columns = environmentValue("COLUMNS");
    std::size_t width = 0;
    std::from_chars(columns.data(), columns.data() + columns.size(), width);
    return width > 0 ? width : 80;
}

} // namespace

OutputStyle OutputStyle::of(std::FILE *stream, ColorChoice color) {
    const int fd = ::fileno(stream);
    OutputStyle style;
    const bool isTerminal = ::isatty(fd) == 1;
    style.canErase = isTerminal && environmentValue("TERM") != "dumb";
    style.width = isTerminal ? terminalWidth(fd) : 0;
    switch (color) {
    case ColorChoice::always:
        style.color = true;
        break;
    case ColorChoice::never:
        break;
    case ColorChoice::automatic:
        style.color = style.canErase && environmentValue("NO_COLOR").empty();
        break;
    }
    return style;
}

std::string OutputStyle::styled(std::string_view code, std::string_view text) const {
    if (!color) {
        return std::string(text);
    }
    std::string styledText = "\x1b[";
    styledText.append(code).append("m").append(text).append("\x1b[0m");
    return styledText;
}

void occupyStandardStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0) {
            // The lowest free number is this one. Opened the wrong way round, it takes no output.
            [[maybe_unused]] const int opened =
                ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

void write(std::FILE *stream, std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stream) != text.size() ||
        std::fflush(stream) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot write the output");
    }
}

void tell(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace klarbox
