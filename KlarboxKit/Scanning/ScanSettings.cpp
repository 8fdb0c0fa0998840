#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "KlarboxKit/Platform/JSON.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <fmt/format.h>

namespace klarbox {

namespace {

[[noreturn]] void fail(const std::string &message) {
    throw PlatformError::cocoa(PlatformError::coderReadCorrupt, message);
}

const JSON &value(const JSON &record, std::string_view key) {
    const auto found = record.find(key);
    if (found == record.end()) {
        fail(fmt::format("the key \"{}\" is missing", key));
    }
    return *found;
}

std::vector<std::string> strings(const JSON &record, std::string_view key) {
    const auto &list = value(record, key);
    std::vector<std::string> texts;
    if (!list.is_array()) {
        fail(fmt::format("\"{}\" must be a list of texts", key));
    }
    for (const auto &element : list) {
        if (!element.is_string()) {
            fail(fmt::format("\"{}\" must be a list of texts", key));
        }
        texts.push_back(element.get<std::string>());
    }
    return texts;
}

bool boolean(const JSON &record, std::string_view key) {
    const auto &flag = value(record, key);
    if (!flag.is_boolean()) {
        fail(fmt::format("\"{}\" must be true or false", key));
    }
    return flag.get<bool>();
}

std::int64_t integer(const JSON &record, std::string_view key) {
    const auto &number = value(record, key);
    const bool fits = number.is_number_integer() &&
                      (!number.is_number_unsigned() || number.get<std::uint64_t>() <= INT64_MAX);
    if (!fits) {
        fail(fmt::format("\"{}\" must be a whole number", key));
    }
    return number.get<std::int64_t>();
}

} // namespace

std::string ScanSettings::encoded() const {
    JSON record;
    record["projectRoots"] = projectRoots;
    record["includeNodeModules"] = includeNodeModules;
    record["staleProjectDays"] = staleProjectDays;
    record["excludedPaths"] = excludedPaths;
    return encodeJSON(record, 2) + "\n";
}

ScanSettings ScanSettings::decode(std::string_view json) {
    const JSON record = parseJSON(json);
    if (!record.is_object()) {
        fail("the settings must be a JSON object");
    }
    return {
        .projectRoots = strings(record, "projectRoots"),
        .includeNodeModules = boolean(record, "includeNodeModules"),
        .staleProjectDays = integer(record, "staleProjectDays"),
        .excludedPaths = strings(record, "excludedPaths"),
    };
}

} // namespace klarbox
