#include "Tests/Support/ScanFixture.hpp"

namespace klarbox::test {

CommandResult RecordedRunner::run(const CommandAction &action, std::chrono::nanoseconds timeout,
                                  std::stop_token) const {
    const std::lock_guard lock(mutex_);
    calls_.push_back({action, timeout});
    const auto answer = answers_.find(action.displayString());
    return answer == answers_.end()
               ? CommandResult{CommandResult::notStarted, "No such file or directory"}
               : answer->second;
}

std::vector<RecordedRunner::Call> RecordedRunner::calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

ScanContext scanContext(const FileURL &home) {
    return {
        .home = home,
        .settings = {.projectRoots = {},
                     .includeNodeModules = true,
                     .staleProjectDays = 30,
                     .excludedPaths = {}},
        .environment = {.runningBundleIDs = {},
                        .runningCommandLines = {},
                        .installedAppName = [](std::string_view) { return std::nullopt; },
                        .hasFullDiskAccess = true,
                        .now = scanTime,
                        .locateTool = [](std::string_view) { return std::nullopt; },
                        .runner = std::make_shared<RecordedRunner>()},
        .minimumSize = 0,
    };
}

} // namespace klarbox::test
