#include "KlarboxCLI/SettingsCommand.hpp"

#include "KlarboxApp/Settings/SettingsStore.hpp"
#include "KlarboxCLI/ExitCode.hpp"
#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"
#include "KlarboxKit/Scanning/Exclusions.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <unistd.h>
#include <variant>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

using List = std::vector<std::string> ScanSettings::*;
using Flag = bool ScanSettings::*;
using Number = std::int64_t ScanSettings::*;

struct Key {
    std::string_view name;
    std::variant<List, Flag, Number> field;
    std::string_view meaning;
};

constexpr std::array keys{
    Key{"projectRoots", &ScanSettings::projectRoots, "folders that hold projects"},
    Key{"includeNodeModules", &ScanSettings::includeNodeModules, "true or false"},
    Key{"staleProjectDays", &ScanSettings::staleProjectDays,
        "days without a change after which a project is stale"},
    Key{"excludedPaths", &ScanSettings::excludedPaths,
        "what is never offered or cleaned: paths, with the wildcards *, ? and **, or "
        "category:ID"},
};

const Key &keyNamed(const std::string &name) {
    const auto found = std::ranges::find(keys, name, &Key::name);
    if (found == keys.end()) {
        std::vector<std::string_view> names;
        std::ranges::transform(keys, std::back_inserter(names), &Key::name);
        throw UsageError(fmt::format("settings: there is no key '{}'; the keys are {}",
                                     Text::visible(name), fmt::join(names, ", ")));
    }
    return *found;
}

/// The value in lines, paths as they can be shown.
std::string valueText(const ScanSettings &settings, const Key &key) {
    return std::visit(
        overloaded{
            [&](List list) {
                std::string lines;
                for (const auto &text : settings.*list) {
                    lines += Text::visible(text) + "\n";
                }
                return lines;
            },
            [&](Flag flag) { return std::string(settings.*flag ? "true\n" : "false\n"); },
            [&](Number number) { return fmt::format("{}\n", settings.*number); },
        },
        key.field);
}

void set(ScanSettings &settings, const Key &key, const std::vector<std::string> &values) {
    const auto single = [&]() -> const std::string & {
        if (values.size() != 1) {
            throw UsageError(fmt::format("settings set {}: one value is needed", key.name));
        }
        return values.front();
    };
    std::visit(
        overloaded{
            [&](List list) { settings.*list = values; },
            [&](Flag flag) {
                const auto &value = single();
                if (value != "true" && value != "false") {
                    throw UsageError(fmt::format("settings set {}: '{}' is not true or false",
                                                 key.name, Text::visible(value)));
                }
                settings.*flag = value == "true";
            },
            [&](Number number) {
                const auto &value = single();
                std::int64_t parsed = 0;
                const auto *end = value.data() + value.size();
                const auto [stop, error] = std::from_chars(value.data(), end, parsed);
                if (error != std::errc() || stop != end || parsed < 0) {
                    throw UsageError(fmt::format("settings set {}: '{}' is not a number of days",
                                                 key.name, Text::visible(value)));
                }
                settings.*number = parsed;
            },
        },
        key.field);
}

std::vector<std::string> &listOf(ScanSettings &settings, const Key &key, std::string_view action) {
    if (const auto *list = std::get_if<List>(&key.field)) {
        return settings.**list;
    }
    throw UsageError(fmt::format("settings {}: {} is not a list; use set", action, key.name));
}

bool holdsExclusions(const Key &key) {
    const auto *list = std::get_if<List>(&key.field);
    return list != nullptr && *list == &ScanSettings::excludedPaths;
}

/// Refuses, where the person can still see the slip, what would mean another place in every folder
/// that klarbox is run in, and what a settings file cannot hold.
void checkPaths(std::string_view where, const Key &key, const std::vector<std::string> &values) {
    const auto refuse = [&](const std::string &value, std::string_view why) {
        throw UsageError(
            fmt::format("{}: {}: '{}' {}", where, key.name, Text::visible(value), why));
    };
    for (const auto &value : values) {
        if (!Text::isValidUTF8(value)) {
            refuse(value, "is not UTF-8, and settings cannot hold anything else");
        }
        const bool excludes = holdsExclusions(key);
        if (excludes && value.starts_with(Exclusions::categoryPrefix)) {
            const auto known = CategoryCatalog::identifiers();
            const auto id = value.substr(Exclusions::categoryPrefix.size());
            if (std::ranges::find(known, id) == known.end()) {
                refuse(value, fmt::format("names no category; the categories are {}",
                                          fmt::join(known, ", ")));
            }
            continue;
        }
        const bool isPath = value == "~" || value.starts_with("~/") || value.starts_with('/');
        if (!isPath || value.find('\0') != std::string::npos) {
            refuse(value, excludes ? "is not a path that begins with / or ~/, nor category:ID"
                                   : "is not a path that begins with / or ~/");
        }
        if (excludes && Exclusions::isEverything(FileManager::homeDirectory(), value)) {
            refuse(value, "would exclude the whole disk");
        }
    }
}

/// What the person should know of sound settings: an exclusion with a slip in it protects nothing.
std::string remarksOn(const ScanSettings &settings) {
    std::string remarks;
    for (const auto &entry : settings.excludedPaths) {
        if (!entry.starts_with(Exclusions::categoryPrefix) &&
            !Exclusions::matchesAnything(FileManager::homeDirectory(), entry)) {
            remarks +=
                fmt::format("excludedPaths: '{}' matches nothing here.\n", Text::visible(entry));
        }
    }
    return remarks;
}

void change(ScanSettings &settings, const SettingsOptions &options) {
    const auto &key = keyNamed(options.key);
    if (std::holds_alternative<List>(key.field) && options.action != "remove") {
        checkPaths("settings", key, options.values);
    }
    if (options.action == "set") {
        set(settings, key, options.values);
        return;
    }
    auto &list = listOf(settings, key, options.action);
    for (const auto &value : options.values) {
        const auto found = std::ranges::find(list, value);
        if (options.action == "add") {
            if (found == list.end()) {
                list.push_back(value);
            }
        } else if (found == list.end()) {
            throw UsageError(
                fmt::format("settings remove: '{}' is not in {}", Text::visible(value), key.name));
        } else {
            list.erase(found);
        }
    }
}

std::string everything(const ScanSettings &settings) {
    std::string text;
    for (const auto &key : keys) {
        if (!std::holds_alternative<List>(key.field)) {
            text += fmt::format("{}: {}", key.name, valueText(settings, key));
            continue;
        }
        text += fmt::format("{}:\n", key.name);
        const auto lines = valueText(settings, key);
        for (const auto line : Text::lines(lines)) {
            text += fmt::format("  {}\n", line);
        }
        if (lines.empty()) {
            text += "  (none)\n";
        }
    }
    return text;
}

} // namespace

std::string settingsSummary() {
    std::string text;
    for (const auto &key : keys) {
        text += fmt::format("{}{} ({})", text.empty() ? "" : ", ", key.name, key.meaning);
    }
    return text;
}

int runSettings(const SettingsOptions &options) {
    const auto file =
        options.file.empty() ? SettingsStore::defaultLocation() : FileURL(options.file);
    const auto shownFile = Text::visible(file.path());
    if (options.action == "path") {
        write(stdout, (::isatty(STDOUT_FILENO) == 1 ? shownFile : file.path()) + "\n");
        return ExitCode::done;
    }
    auto settings = SettingsStore::loadOrFirstRun(file);
    if (options.action == "check") {
        for (const auto &key : keys) {
            if (const auto *list = std::get_if<List>(&key.field)) {
                checkPaths(fmt::format("settings file {}", shownFile), key, settings.**list);
            }
        }
        write(stdout,
              FileManager::type(file)
                  ? fmt::format("{} is sound.\n", shownFile)
                  : fmt::format("{} does not exist; the first-run settings apply.\n", shownFile));
        write(stdout, remarksOn(settings));
    } else if (options.action == "show") {
        write(stdout, everything(settings));
    } else if (options.action == "get") {
        write(stdout, valueText(settings, keyNamed(options.key)));
    } else {
        change(settings, options); // tells of a slip before anything is made
        try {
            // What others add at the same time must not be lost: each changes what the last left.
            const auto turn = FileManager::lock(file.parent());
            settings = SettingsStore::loadOrFirstRun(file);
            change(settings, options);
            SettingsStore::save(file, settings);
        } catch (const PlatformError &error) {
            throw UsageError(fmt::format("settings: {}", error.message()));
        }
    }
    return ExitCode::done;
}

} // namespace klarbox
