#include "KlarboxCLI/Terminal.hpp"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>
#include <utility>

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

/// Empties the terminal's queue of input.
void dropTyped() {
    if (::tcflush(STDIN_FILENO, TCIFLUSH) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot ask on the terminal");
    }
}

/// Drops what was typed so far.
void dropAllTyped() {
    // A long paste comes piece by piece; it is over when the terminal is quiet.
    constexpr int settlingMilliseconds = 20;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    do {
        dropTyped();
    } while (::poll(&input, 1, settlingMilliseconds) > 0 && (input.revents & POLLHUP) == 0);
    dropTyped(); // the beginning of a line does not show
}

/// The next line of standard input; nothing when the input ends, or can be read no more, within it:
/// what nobody ended is no answer. No stream is used, as it would keep lines that were read ahead.
std::optional<std::string> readLine() {
    std::string line;
    std::array<char, 4096> piece{};
    for (;;) {
        const auto length = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            return std::nullopt;
        }
        line.append(piece.data(), static_cast<std::size_t>(length));
        if (const auto end = line.find('\n'); end != std::string::npos) {
            return line.substr(0, end);
        }
    }
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

std::string ask(std::string_view question) {
    // Writing takes as long as the terminal does; the question stands there with its last line.
    const auto lastLine = question.rfind('\n') + 1;
    write(stderr, question.substr(0, lastLine));
    dropAllTyped();
    write(stderr, question.substr(lastLine));
    auto line = readLine();
    if (!line) {
        write(stderr, "\n");
    }
    return std::move(line).value_or("");
}

} // namespace klarbox
