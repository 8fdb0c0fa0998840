#include "KlarboxKit/Commands/ToolLocator.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"

#include <vector>

namespace klarbox {

std::optional<FileURL> ToolLocator::find(std::string_view name,
                                         std::span<const std::string> extraLocations) {
    const auto home = FileManager::homeDirectory();
    std::vector<FileURL> folders{
        FileURL("/opt/homebrew/bin"),
        FileURL("/usr/local/bin"),
        home.appending(".local/bin"),
        home.appending(".bun/bin"),
        home.appending("Library/pnpm"),
        FileURL("/usr/bin"),
        FileURL("/bin"),
    };
    for (const auto &location : extraLocations) {
        folders.emplace_back(location);
    }
    for (const auto &folder : folders) {
        const auto tool = folder.appending(name);
        if (FileManager::isExecutableFile(tool)) {
            return tool;
        }
    }
    return std::nullopt;
}

} // namespace klarbox
