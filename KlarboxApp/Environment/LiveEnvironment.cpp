#include "KlarboxApp/Environment/LiveEnvironment.hpp"

#include "KlarboxApp/Environment/ApplicationBundle.hpp"
#include "KlarboxApp/Environment/InstalledApplications.hpp"
#include "KlarboxKit/Commands/ProcessCommandRunner.hpp"
#include "KlarboxKit/Commands/ToolLocator.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/DesktopEntries.hpp"
#include "KlarboxKit/Platform/Processes.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>

namespace klarbox {

namespace {

/// The person's folders that macOS opens only to programs with Full Disk Access, and that it makes
/// for every account or whose owners nearly everyone uses; and the one whose scanner asks for it.
constexpr std::array<std::string_view, 8> guardedFolders{
    "Library/Mail",
    "Library/Messages",
    "Library/Safari",
    "Library/Calendars",
    "Library/Suggestions",
    "Library/Application Support/AddressBook",
    "Library/Application Support/com.apple.TCC",
    "Library/Containers",
};

/// Whether nothing keeps this process from listing the guarded folders. Only being refused is an
/// answer: a folder that does not exist says nothing.
bool canListGuardedFolders(const FileURL &home) {
    return std::ranges::all_of(guardedFolders, [&](std::string_view name) {
        try {
            FileManager::contentsOfDirectory(home.appending(name));
        } catch (const PlatformError &error) {
            return error.code() != PlatformError::fileReadNoPermission;
        }
        return true;
    });
}

std::string commandLine(const RunningProcess &process) {
    auto line = process.executable;
    for (std::size_t i = 0; i < process.arguments.size(); ++i) {
        const auto &argument = process.arguments[i];
        // The name that a process was started by says something of its own only where it is a path
        // that led to the executable, or where the executable is not known.
        const bool isNews =
            i > 0 || line.empty() ||
            (argument != process.executable && argument.find('/') != std::string::npos);
        if (isNews) {
            line.append(line.empty() ? "" : " ").append(argument);
        }
    }
    return line;
}

/// Identifiers of the application bundles that executables lie in.
class BundleIdentifiers {
public:
    /// That of the innermost bundle around the executable; nothing when it lies in none.
    const std::optional<std::string> &around(const std::string &executable) {
        constexpr std::string_view inside = ".app/";
        static const std::optional<std::string> none;
        for (auto end = executable.rfind(inside); end != std::string::npos && end > 0;
             end = executable.rfind(inside, end - 1)) {
            const auto &identifier = of(executable.substr(0, end + inside.size() - 1));
            if (identifier) {
                return identifier;
            }
        }
        return none;
    }

private:
    /// Applications run many processes, so that each bundle is read once.
    const std::optional<std::string> &of(const std::string &bundle) {
        const auto [found, isNew] = known_.try_emplace(bundle);
        if (isNew) {
            try {
                if (auto read = ApplicationBundle::read(FileURL(bundle))) {
                    found->second = std::move(read->identifier);
                }
            } catch (const PlatformError &) { // NOLINT(bugprone-empty-catch): as unknown as without
            }
        }
        return found->second;
    }

    std::map<std::string, std::optional<std::string>> known_;
};

std::vector<FileURL> bundleFolders(const FileURL &home, const FileURL &disk) {
    std::vector<FileURL> folders{home.appending("Applications")};
    for (const auto &root : {disk, FileURL("/")}) {
        folders.push_back(root.appending("Applications"));
        folders.push_back(root.appending("System/Applications"));
        if (disk == FileURL("/")) {
            break;
        }
    }
    return folders;
}

} // namespace

std::shared_ptr<const InstalledApplications> applicationsFor(const FileURL &home,
                                                             const FileURL &disk) {
    return std::make_shared<const InstalledApplications>(bundleFolders(home, disk),
                                                         DesktopEntries::folders(home));
}

ScanEnvironment liveEnvironment(const FileURL &home,
                                std::shared_ptr<const InstalledApplications> applications) {
    ScanEnvironment environment{
        .runningBundleIDs = {},
        .runningCommandLines = {},
        .installedAppName = [applications = std::move(applications)](
                                std::string_view bundleID) { return applications->name(bundleID); },
        .hasFullDiskAccess = canListGuardedFolders(home),
        .now = std::chrono::floor<Date::duration>(std::chrono::system_clock::now()),
        .locateTool = [](std::string_view name) { return ToolLocator::find(name); },
        .runner = std::make_shared<ProcessCommandRunner>(),
    };
    BundleIdentifiers identifiers;
    for (const auto &process : runningProcesses()) {
        environment.runningCommandLines.push_back(commandLine(process));
        if (const auto &identifier = identifiers.around(process.executable)) {
            environment.runningBundleIDs.insert(*identifier);
        }
        if (process.packagedApplication) {
            environment.runningBundleIDs.insert(*process.packagedApplication);
        }
    }
    return environment;
}

} // namespace klarbox
