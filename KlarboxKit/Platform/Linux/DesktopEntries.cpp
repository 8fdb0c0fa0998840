#include "KlarboxKit/Platform/DesktopEntries.hpp"

#include "KlarboxKit/Foundation/KeyFile.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <cstdlib>

namespace klarbox {

namespace {

std::string_view environment(const char *name, std::string_view otherwise) {
    // The environment is not changed after start. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char *value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : otherwise;
}

} // namespace

std::vector<FileURL> DesktopEntries::folders(const FileURL &home) {
    std::vector<FileURL> dataFolders{home.appending(".local/share")};
    const auto add = [&](std::string_view path) {
        // A relative path there is to be ignored, as the base directory convention says.
        if (path.starts_with('/')) {
            dataFolders.emplace_back(path);
        }
    };
    add(environment("XDG_DATA_HOME",
                    FileManager::homeDirectory().appending(".local/share").path()));
    for (auto rest = environment("XDG_DATA_DIRS", "/usr/local/share:/usr/share"); !rest.empty();) {
        const auto end = rest.find(':');
        add(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }

    std::vector<FileURL> all;
    for (const auto &folder : dataFolders) {
        all.push_back(folder.appending("applications"));
        all.push_back(folder.appending("flatpak/exports/share/applications"));
    }
    // Sessions usually name these in XDG_DATA_DIRS, but a service or a root shell has no session.
    all.emplace_back("/var/lib/flatpak/exports/share/applications");
    all.emplace_back("/var/lib/snapd/desktop/applications");
    return all;
}

std::optional<std::string_view> DesktopEntries::identifier(std::string_view fileName) {
    constexpr std::string_view suffix = ".desktop";
    if (!fileName.ends_with(suffix) || fileName == suffix) {
        return std::nullopt;
    }
    return fileName.substr(0, fileName.size() - suffix.size());
}

std::optional<std::string> DesktopEntries::name(std::string_view entry) {
    return keyFileValue(entry, "Desktop Entry", "Name");
}

} // namespace klarbox
