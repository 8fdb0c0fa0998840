#include "KlarboxKit/Platform/Processes.hpp"

#include "KlarboxKit/Foundation/KeyFile.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace klarbox {

namespace {

/// A single argument can be 128 KiB long, and the name that tells what a Java process does comes
/// after its class path.
constexpr std::size_t longestCommandLine = 1 << 20;
constexpr std::size_t largestFlatpakInfo = 1 << 20;

/// Whether `path` leads to the file that the process runs.
bool runs(const FileURL &process, const std::string &path) {
    struct ::stat running {};
    struct ::stat found {};
    return ::stat(process.appending("exe").path().c_str(), &running) == 0 &&
           ::stat(path.c_str(), &found) == 0 && running.st_dev == found.st_dev &&
           running.st_ino == found.st_ino;
}

std::string executable(const FileURL &process) {
    std::array<char, PATH_MAX> buffer; // NOLINT: filled by readlink before it is looked at
    const auto size =
        ::readlink(process.appending("exe").path().c_str(), buffer.data(), buffer.size());
    std::string path(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    // What an update replaces while it runs is still the program of that name; but a file may also
    // have the name that the system gives to one that is no more.
    constexpr std::string_view deleted = " (deleted)";
    if (path.ends_with(deleted) && !runs(process, path)) {
        path.resize(path.size() - deleted.size());
    }
    return path;
}

std::vector<std::string> arguments(const FileURL &process) {
    const UniqueFD file(::open(process.appending("cmdline").path().c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<std::string> all;
    std::array<char, 16384> buffer; // NOLINT: filled by read before it is looked at
    bool isInside = false;          // of the last argument
    for (std::size_t total = 0; total < longestCommandLine;) {
        const auto count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break; // a process that has ended has no arguments either
        }
        std::string_view lot(buffer.data(), static_cast<std::size_t>(count));
        total += lot.size();
        while (!lot.empty()) {
            const auto end = lot.find('\0');
            if (!isInside) {
                all.emplace_back();
            }
            all.back().append(lot.substr(0, end));
            isInside = end == std::string_view::npos;
            lot.remove_prefix(isInside ? lot.size() : end + 1);
        }
    }
    return all;
}

/// Flatpak puts this file, which the application cannot write, at the root of every sandbox; it is
/// how desktop portals tell applications apart. The folders of its instances below
/// XDG_RUNTIME_DIR would do only for one user's session, and stay when an instance has ended.
std::optional<std::string> flatpakApplication(const FileURL &process) {
    const auto info = process.appending("root/.flatpak-info");
    if (FileManager::type(info) != FileManager::FileType::regular) {
        return std::nullopt;
    }
    try {
        return keyFileValue(FileManager::contents(info, largestFlatpakInfo), "Application", "name");
    } catch (const PlatformError &) {
        return std::nullopt; // the process has ended meanwhile
    }
}

} // namespace

std::vector<RunningProcess> runningProcesses() {
    const FileURL all("/proc");
    const auto own = std::to_string(::getpid());
    std::vector<RunningProcess> running;
    for (const auto &name : FileManager::contentsOfDirectory(all)) {
        if (name.find_first_not_of("0123456789") != std::string::npos || name == own) {
            continue;
        }
        const auto process = all.appending(name);
        RunningProcess one{.executable = executable(process),
                           .arguments = arguments(process),
                           .packagedApplication = flatpakApplication(process)};
        // Threads of the kernel, and processes that have ended.
        if (!one.executable.empty() || !one.arguments.empty()) {
            running.push_back(std::move(one));
        }
    }
    return running;
}

} // namespace klarbox
