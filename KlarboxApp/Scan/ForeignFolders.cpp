#include "KlarboxApp/Scan/ForeignFolders.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"

#include <algorithm>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace klarbox {

namespace {

/// Whether a folder belongs to this user or to root, so that what lies in it is theirs to answer
/// for.
bool isTrusted(const FileURL &folder) {
    struct stat status {};
    return ::stat(folder.path().c_str(), &status) == 0 &&
           (status.st_uid == 0 || status.st_uid == ::geteuid());
}

bool isMountPoint(const FileURL &folder) {
    const auto path = SafetyGuard::canonicalPath(folder.path());
    const auto status = FileStatus::of(AT_FDCWD, path.c_str());
    return status && status->isMountRoot;
}

} // namespace

ForeignFolders::ForeignFolders(FileURL home, FileURL disk)
    : home_(std::move(home)),
      disk_(std::move(disk)) {}

std::vector<FileURL> ForeignFolders::places() const {
    std::vector<FileURL> folders;
    if (!isTrusted(home_)) {
        folders.push_back(home_);
    }
    // Who owns a file on a disk from elsewhere is whoever has that number there.
    if (disk_ != FileURL("/") && (!isTrusted(disk_) || isMountPoint(disk_))) {
        folders.push_back(disk_);
    }
    return folders;
}

std::vector<FileURL> ForeignFolders::withForeignPrograms() const {
    auto folders = places();
    if (const auto own = FileManager::homeDirectory(); !isTrusted(own)) {
        folders.push_back(own);
    }
    return folders;
}

std::vector<FileURL> ForeignFolders::enclosures() const {
    auto folders = places();
    if (disk_ != FileURL("/")) {
        // This person's too: its links were made on another machine.
        folders.push_back(disk_);
    }
    std::ranges::copy(ScannerSupport::childrenOrNone(disk_.appending("Volumes")),
                      std::back_inserter(folders));
    return folders;
}

} // namespace klarbox
