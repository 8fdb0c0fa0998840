#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <fmt/format.h>

namespace klarbox {

namespace {

[[noreturn]] void fail(const std::string &message) {
    throw PlatformError::cocoa(PlatformError::coderReadCorrupt, message);
}

std::vector<std::string> strings(const ParsedJSON &record, std::string_view key) {
    const auto &list = requiredMember(record, key);
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

bool boolean(const ParsedJSON &record, std::string_view key) {
    const auto &flag = requiredMember(record, key);
    if (!flag.is_boolean()) {
        fail(fmt::format("\"{}\" must be true or false", key));
    }
    return flag.get<bool>();
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
    const auto record = parseJSON(json);
    if (!record.is_object()) {
        fail("the settings must be a JSON object");
    }
    return {
        .projectRoots = strings(record, "projectRoots"),
        .includeNodeModules = boolean(record, "includeNodeModules"),
        .staleProjectDays = requiredInteger(record, "staleProjectDays"),
        .excludedPaths = strings(record, "excludedPaths"),
    };
}

} // namespace klarbox
