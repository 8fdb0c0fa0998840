#include "KlarboxApp/Scan/Locations.hpp"

#include "KlarboxApp/InputError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"

#include <string_view>
#include <sys/stat.h>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox::Locations {

namespace {

/// Refuses a folder that would look empty to every scanner: what is not there, or may not be
/// entered.
void requireFolder(const FileURL &url, InputError::Input input) {
    const auto *name = input == InputError::Input::other ? "the home folder: " : "";
    const auto shown = Text::visible(url.path());
    if (!FileManager::isDirectory(url)) {
        throw InputError(input,
                         fmt::format("{}{} is not a folder that this user can see", name, shown));
    }
    if (!FileManager::isDirectory(url.appending("."))) {
        throw InputError(input, fmt::format("{}{} may not be entered by this user", name, shown));
    }
}

bool isSameFolder(const std::string &a, const std::string &b) {
    struct stat ofA {};
    struct stat ofB {};
    return ::stat(a.c_str(), &ofA) == 0 && ::stat(b.c_str(), &ofB) == 0 &&
           ofA.st_dev == ofB.st_dev && ofA.st_ino == ofB.st_ino;
}

/// The folder that is named. A path through ".." is resolved on the disk, as a shell would:
/// folding it as text would lead elsewhere when a link comes before it.
FileURL folder(InputError::Input input, const std::string &path) {
    FileURL url(path, true);
    requireFolder(url, input);
    // What lies in a container is reached through the root of one of its processes, and has no
    // other path here: resolved, its paths are those of this machine's own files.
    const auto resolved = FileManager::realPath(url.path());
    if (!resolved || !isSameFolder(url.path(), *resolved)) {
        throw InputError(input, fmt::format("{} leads into a system of its own, whose paths mean "
                                            "other files here",
                                            Text::visible(path)));
    }
    if ((url.path() + "/").find("/../") != std::string::npos) {
        return FileURL(*resolved, true);
    }
    return url.standardized();
}

/// The home folder that is meant when none is named: the person's own on this machine's disk, the
/// only one of any other. Somebody's own home beside the disk of another is not what they ask for.
FileURL homeOn(const FileURL &disk) {
    if (disk == FileURL("/")) {
        return FileManager::homeDirectory();
    }
    const auto users = disk.appending("Users", true);
    std::vector<FileURL> homes;
    std::vector<std::string> names;
    for (const auto &entry : ScannerSupport::childrenOrNone(users)) {
        const auto name = entry.lastComponent();
        if (FileManager::type(entry) == FileManager::FileType::directory &&
            Text::lowercased(name) != "shared" && !name.starts_with('.')) {
            homes.push_back(entry);
            names.push_back(Text::visible(name));
        }
    }
    if (homes.size() != 1) {
        throw InputError(
            InputError::Input::whichHome,
            fmt::format("which home folder is meant? {} holds {}", Text::visible(users.path()),
                        homes.empty() ? "none" : fmt::format("{}", fmt::join(names, ", "))));
    }
    return homes.front();
}

} // namespace

FileURL startupDisk(const std::string &path) {
    auto url = folder(InputError::Input::disk, path);
    return FileManager::realPath(url.path()) == "/" ? FileURL("/", true) : url;
}

FileURL home(const std::string &path, const FileURL &disk) {
    auto url = path.empty() ? homeOn(disk) : folder(InputError::Input::home, path);
    requireFolder(url, InputError::Input::other);
    return url;
}

} // namespace klarbox::Locations
