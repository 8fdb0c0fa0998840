#include "KlarboxKit/Commands/ProcessCommandRunner.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/ChildProcess.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unistd.h>
#include <vector>

extern char **environ; // NOLINT(readability-redundant-declaration): only Linux declares it

namespace klarbox {

namespace {

/// The inherited search path with the folders where the tools live in front: an application not
/// started from a shell inherits hardly any.
std::string searchPath(std::string_view inherited) {
    std::vector<std::string> folders{
        "/opt/homebrew/bin", "/opt/homebrew/sbin",
        "/usr/local/bin",    FileManager::homeDirectory().appending(".local/bin").path(),
        "/usr/bin",          "/bin",
        "/usr/sbin",         "/sbin",
    };
    const auto preferred = folders.size();
    while (!inherited.empty()) {
        const auto colon = inherited.find(':');
        const auto folder = inherited.substr(0, colon);
        inherited.remove_prefix(colon == std::string_view::npos ? inherited.size() : colon + 1);
        const auto end = folders.begin() + static_cast<std::ptrdiff_t>(preferred);
        if (!folder.empty() && std::find(folders.begin(), end, folder) == end) {
            folders.emplace_back(folder);
        }
    }
    std::string path;
    for (const auto &folder : folders) {
        path.append(path.empty() ? "" : ":").append(folder);
    }
    return path;
}

/// Throws only for want of memory; `status` is then how the tool ended, if it was started.
CommandResult attempt(const CommandAction &action, std::chrono::nanoseconds timeout,
                      const std::stop_token &stop, std::optional<int> &status) {
    try {
        ChildProcess child(action.executable, action.arguments, ProcessCommandRunner::environment(),
                           stop);
        status = child.wait(timeout);
        // A tool that was told to stop may have ended for that, and call it a success.
        if (!status || stop.stop_requested()) {
            child.terminate();
            return {CommandResult::timedOut, "Timed out"};
        }
        return {*status, Text::repairedUTF8(child.output())};
    } catch (const PlatformError &error) {
        return {CommandResult::notStarted, error.message()};
    }
}

} // namespace

std::map<std::string, std::string> ProcessCommandRunner::environment() {
    std::map<std::string, std::string> variables;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const auto equals = text.find('=');
        if (equals != std::string_view::npos && equals > 0) {
            // Of a name given twice the first counts, as it does for getenv.
            variables.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
    }
    auto &path = variables["PATH"];
    path = searchPath(path);
    variables["HOMEBREW_NO_AUTO_UPDATE"] = "1";
    variables["HOMEBREW_NO_ENV_HINTS"] = "1";
    return variables;
}

CommandResult ProcessCommandRunner::run(const CommandAction &action,
                                        std::chrono::nanoseconds timeout,
                                        std::stop_token stop) const {
    std::optional<int> status;
    try {
        return attempt(action, timeout, stop, status);
    } catch (const std::exception &) {
        // So short a text needs no memory of its own.
        return {status.value_or(CommandResult::notStarted), "Out of memory"};
    }
}

} // namespace klarbox
