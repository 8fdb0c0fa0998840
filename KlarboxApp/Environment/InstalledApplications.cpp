#include "KlarboxApp/Environment/InstalledApplications.hpp"

#include "KlarboxApp/Environment/ApplicationBundle.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/DesktopEntries.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <utility>

namespace klarbox {

namespace {

constexpr std::size_t largestEntry = 4 << 20;

/// Suites keep their applications a folder or two down; what lies deeper is no application folder
/// but somebody's tree.
constexpr int deepestSubfolder = 3;

} // namespace

InstalledApplications::InstalledApplications(std::vector<FileURL> bundleFolders,
                                             std::vector<FileURL> entryFolders)
    : bundleFolders_(std::move(bundleFolders)),
      entryFolders_(std::move(entryFolders)) {}

std::optional<std::string> InstalledApplications::name(std::string_view identifier) const {
    std::call_once(once_, [&] { index_ = makeIndex(); });
    const auto found = index_.names.find(Text::lowercased(identifier));
    if (found != index_.names.end()) {
        return found->second;
    }
    if (index_.isComplete && index_.hasBundleFolder) {
        return std::nullopt;
    }
    hasTakenAll_ = hasTakenAll_ || !index_.hasBundleFolder;
    return std::string(identifier);
}

InstalledApplications::Index InstalledApplications::makeIndex() const {
    Index index;
    for (const auto &folder : bundleFolders_) {
        index.hasBundleFolder = index.hasBundleFolder || FileManager::exists(folder);
        addBundles(index, folder, deepestSubfolder);
    }
    for (const auto &folder : entryFolders_) {
        addEntries(index, folder);
    }
    return index;
}

void InstalledApplications::addBundles(Index &index, const FileURL &folder, int depth) {
    using FileManager::FileType;
    if (!FileManager::type(folder)) {
        return;
    }
    try {
        for (const auto &entry : FileManager::entriesOfDirectory(folder)) {
            const auto child = folder.appending(entry.name);
            if (child.extension() == "app") {
                try {
                    if (auto bundle = ApplicationBundle::read(child)) {
                        index.names.try_emplace(Text::lowercased(bundle->identifier),
                                                std::move(bundle->name));
                    }
                } catch (const PlatformError &) {
                    index.isComplete = false;
                }
            } else if (depth > 0 && entry.type != FileType::regular &&
                       FileManager::isDirectory(child)) {
                // A link may well lead to applications on another disk, but also around in circles.
                const bool isLink = FileManager::type(child) == FileType::symbolicLink;
                addBundles(index, child, isLink ? 0 : depth - 1);
            }
        }
    } catch (const PlatformError &) {
        index.isComplete = false;
    }
}

void InstalledApplications::addEntries(Index &index, const FileURL &folder) {
    if (!FileManager::exists(folder)) {
        return;
    }
    try {
        for (const auto &fileName : FileManager::contentsOfDirectory(folder)) {
            const auto identifier = DesktopEntries::identifier(fileName);
            if (!identifier) {
                continue;
            }
            // An entry that cannot be read still says by its name what is installed.
            std::string name(*identifier);
            try {
                name = DesktopEntries::name(
                           FileManager::contents(folder.appending(fileName), largestEntry))
                           .value_or(name);
            } catch (const PlatformError &) { // NOLINT(bugprone-empty-catch)
            }
            index.names.try_emplace(Text::lowercased(*identifier), std::move(name));
        }
    } catch (const PlatformError &) {
        index.isComplete = false;
    }
}

} // namespace klarbox
