#include "KlarboxApp/Environment/EnvironmentFile.hpp"

#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>

#include <fmt/format.h>

namespace klarbox {

namespace {

[[noreturn]] void fail(std::string_view key, std::string_view what) {
    throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                               fmt::format("\"{}\" {}", Text::visible(key), what));
}

std::string text(std::string_view key, const ParsedJSON &value, std::string_view what) {
    if (!value.is_string()) {
        fail(key, what);
    }
    return value.get<std::string>();
}

std::vector<std::string> texts(std::string_view key, const ParsedJSON &value) {
    if (!value.is_array()) {
        fail(key, "must be a list of texts");
    }
    std::vector<std::string> all;
    for (const auto &element : value) {
        all.push_back(text(key, element, "must be a list of texts"));
    }
    return all;
}

std::map<std::string, std::string, std::less<>> textMap(std::string_view key,
                                                        const ParsedJSON &value) {
    if (!value.is_object()) {
        fail(key, "must be an object of texts");
    }
    std::map<std::string, std::string, std::less<>> all;
    for (const auto &[name, element] : value.items()) {
        all[name] = text(key, element, "must be an object of texts");
    }
    return all;
}

/// Reads ISO 8601: 2026-11-22T12:00:00Z, with a fraction of a second and an offset such as +01:00
/// where they stand.
class DateReader {
public:
    explicit DateReader(std::string_view text) : rest_(text) {}

    std::optional<Date> read() {
        const auto year = number(4);
        const bool hasDate = year && take('-') && readInto(month_, 2, 1, 12) && take('-') &&
                             readInto(day_, 2, 1, 31) && take('T');
        const bool hasTime = hasDate && readInto(hours_, 2, 0, 23) && take(':') &&
                             readInto(minutes_, 2, 0, 59) && take(':') &&
                             readInto(seconds_, 2, 0, 59);
        if (!hasTime) {
            return std::nullopt;
        }
        const auto fraction = readFraction();
        const auto offset = readOffset();
        const std::chrono::year_month_day date(std::chrono::year(*year),
                                               std::chrono::month(static_cast<unsigned>(month_)),
                                               std::chrono::day(static_cast<unsigned>(day_)));
        if (!fraction || !offset || !rest_.empty() || !date.ok()) {
            return std::nullopt;
        }
        return std::chrono::sys_days(date) + std::chrono::hours(hours_) +
               std::chrono::minutes(minutes_) + std::chrono::seconds(seconds_) + *fraction -
               *offset;
    }

private:
    bool take(char c) {
        if (!rest_.starts_with(c)) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }

    std::optional<int> number(std::size_t digits) {
        const auto piece = rest_.substr(0, digits);
        if (piece.size() != digits ||
            piece.find_first_not_of("0123456789") != std::string_view::npos) {
            return std::nullopt;
        }
        int value = 0;
        std::from_chars(piece.data(), piece.data() + piece.size(), value);
        rest_.remove_prefix(digits);
        return value;
    }

    bool readInto(int &value, std::size_t digits, int lowest, int highest) {
        const auto read = number(digits);
        value = read.value_or(lowest - 1);
        return value >= lowest && value <= highest;
    }

    /// Digits beyond microseconds are dropped.
    std::optional<std::chrono::microseconds> readFraction() {
        std::chrono::microseconds fraction{0};
        if (!take('.')) {
            return fraction;
        }
        if (rest_.find_first_of("0123456789") != 0) {
            return std::nullopt;
        }
        for (int unit = 100'000; const auto digit = number(1); unit /= 10) {
            fraction += std::chrono::microseconds(*digit * unit);
        }
        return fraction;
    }

    std::optional<std::chrono::minutes> readOffset() {
        if (take('Z')) {
            return std::chrono::minutes(0);
        }
        const int sign = rest_.starts_with('-') ? -1 : 1;
        int hours = 0;
        int minutes = 0;
        if ((take('+') || take('-')) && readInto(hours, 2, 0, 23)) {
            take(':'); // the colon may be left out
            if (!readInto(minutes, 2, 0, 59)) {
                return std::nullopt;
            }
            return std::chrono::minutes(sign * (hours * 60 + minutes));
        }
        return std::nullopt;
    }

    std::string_view rest_;
    int month_ = 0;
    int day_ = 0;
    int hours_ = 0;
    int minutes_ = 0;
    int seconds_ = 0;
};

void setRunningBundleIDs(ScanEnvironment &environment, std::string_view key,
                         const ParsedJSON &value) {
    const auto all = texts(key, value);
    environment.runningBundleIDs = {all.begin(), all.end()};
}

void setRunningCommandLines(ScanEnvironment &environment, std::string_view key,
                            const ParsedJSON &value) {
    environment.runningCommandLines = texts(key, value);
}

void setInstalledApps(ScanEnvironment &environment, std::string_view key, const ParsedJSON &value) {
    environment.installedAppName =
        [names = textMap(key, value)](std::string_view id) -> std::optional<std::string> {
        const auto found = names.find(id);
        return found == names.end() ? std::nullopt : std::optional(found->second);
    };
}

void setHasFullDiskAccess(ScanEnvironment &environment, std::string_view key,
                          const ParsedJSON &value) {
    if (!value.is_boolean()) {
        fail(key, "must be true or false");
    }
    environment.hasFullDiskAccess = value.get<bool>();
}

void setNow(ScanEnvironment &environment, std::string_view key, const ParsedJSON &value) {
    constexpr std::string_view what = "must be a date such as 2026-11-22T12:00:00Z";
    const auto written = text(key, value, what);
    const auto date = DateReader(written).read();
    if (!date) {
        fail(key, what);
    }
    environment.now = *date;
}

void setTools(ScanEnvironment &environment, std::string_view key, const ParsedJSON &value) {
    const auto paths = textMap(key, value);
    std::map<std::string, FileURL, std::less<>> located;
    for (const auto &[name, path] : paths) {
        if (!path.starts_with('/')) {
            fail(key, fmt::format("must give \"{}\" an absolute path", Text::visible(name)));
        }
        located.emplace(name, FileURL(path));
    }
    environment.locateTool =
        [tools = std::move(located)](std::string_view name) -> std::optional<FileURL> {
        const auto found = tools.find(name);
        return found == tools.end() ? std::nullopt : std::optional(found->second);
    };
}

struct Key {
    std::string_view name;
    void (*set)(ScanEnvironment &environment, std::string_view key, const ParsedJSON &value);
};

constexpr std::array keys{
    Key{"runningBundleIDs", setRunningBundleIDs},
    Key{"runningCommandLines", setRunningCommandLines},
    Key{"installedApps", setInstalledApps},
    Key{"hasFullDiskAccess", setHasFullDiskAccess},
    Key{"now", setNow},
    Key{"tools", setTools},
};

} // namespace

ScanEnvironment environmentFromFile(std::string_view json, ScanEnvironment live) {
    const auto record = parseJSON(json);
    if (!record.is_object()) {
        throw PlatformError::cocoa(PlatformError::coderReadCorrupt,
                                   "the environment must be a JSON object");
    }
    for (const auto &[name, value] : record.items()) {
        const auto *key = std::ranges::find(keys, name, &Key::name);
        if (key == keys.end()) {
            fail(name, "is not a key of the environment");
        }
        key->set(live, key->name, value);
    }
    return live;
}

} // namespace klarbox
