#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace klarbox {

/// The applications of a machine by their identifiers. They are looked for when the first question
/// comes (many a scan asks none), once, and from then on every answer comes from memory. Safe from
/// any thread.
class InstalledApplications {
public:
    /// `bundleFolders` hold application bundles, also in their subfolders, and `entryFolders` hold
    /// desktop entries. Folders that do not exist hold nothing; what an earlier folder holds counts
    /// before what a later one holds.
    InstalledApplications(std::vector<FileURL> bundleFolders, std::vector<FileURL> entryFolders);

    /// The name of the application with this identifier, letter case aside. Nothing only when it
    /// is certain that there is none: where a folder or an application could not be read, or no
    /// bundle folder exists (a home without its disk), an unknown identifier stands for itself, as
    /// data of an application that nobody saw must not pass for that of a removed one.
    std::optional<std::string> name(std::string_view identifier) const;

    /// Whether identifiers were taken for installed because none of the bundle folders exists.
    bool hasTakenAllForInstalled() const { return hasTakenAll_; }

private:
    struct Index {
        std::unordered_map<std::string, std::string> names; ///< by folded identifier
        bool isComplete = true;
        bool hasBundleFolder = false;
    };

    Index makeIndex() const;
    static void addBundles(Index &index, const FileURL &folder, int depth);
    static void addEntries(Index &index, const FileURL &folder);

    std::vector<FileURL> bundleFolders_;
    std::vector<FileURL> entryFolders_;
    mutable std::once_flag once_;
    mutable Index index_;
    mutable std::atomic<bool> hasTakenAll_ = false;
};

} // namespace klarbox
