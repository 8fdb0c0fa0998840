#include "KlarboxKit/Platform/SystemLog.hpp"

#include "KlarboxKit/Foundation/Text.hpp"

#include <array>
#include <exception>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

// Where in these sources an entry was written is of no use to whoever reads the log.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace klarbox {

namespace {

int priority(SystemLog::Level level) {
    switch (level) {
    case SystemLog::Level::info:
        return LOG_INFO;
    case SystemLog::Level::notice:
        return LOG_NOTICE;
    case SystemLog::Level::error:
        return LOG_ERR;
    }
    return LOG_NOTICE;
}

iovec field(const std::string &text) {
    return {.iov_base = const_cast<char *>(text.data()), .iov_len = text.size()};
}

/// Sends an entry; whether that was possible. The library opens its socket for the first entry, and
/// how it settles which of several threads does is hidden from the thread sanitizer: so the first
/// one goes alone.
bool send(std::span<const iovec> fields) {
    static std::once_flag isOpened;
    const auto now = [&] {
        return ::sd_journal_sendv(fields.data(), static_cast<int>(fields.size())) >= 0;
    };
    std::optional<bool> sent;
    std::call_once(isOpened, [&] { sent = now(); });
    return sent ? *sent : now();
}

/// Sending to a journal that does not exist succeeds silently.
bool journalExists() {
    return ::access("/run/systemd/journal/socket", F_OK) == 0;
}

} // namespace

SystemLog::SystemLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)),
      category_(std::move(category)) {}

void SystemLog::log(Level level, std::string_view text) const noexcept {
    try {
        const auto shown = Text::escaped(text);
        if (journalExists()) {
            const auto message = "MESSAGE=" + shown;
            const auto prioritised = "PRIORITY=" + std::to_string(priority(level));
            const auto identifier = "SYSLOG_IDENTIFIER=" + subsystem_;
            const auto subsystem = "SUBSYSTEM=" + subsystem_;
            const auto category = "CATEGORY=" + category_;
            const std::array fields{field(message), field(prioritised), field(identifier),
                                    field(subsystem), field(category)};
            if (send(fields)) {
                return;
            }
        }
        // Facility in the call, and no `openlog`, which would be one setting for the whole process.
        ::syslog(LOG_DAEMON | priority(level), "[%s:%s] %s", subsystem_.c_str(), category_.c_str(),
                 shown.c_str());
    } catch (const std::exception &) {
        // Out of memory while describing: the removal itself is unaffected.
    }
}

} // namespace klarbox
