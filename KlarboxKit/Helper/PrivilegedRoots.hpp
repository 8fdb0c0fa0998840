#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <array>

namespace klarbox {

/// The five system folders inside which, and nowhere else, the privileged helper removes things.
struct PrivilegedRoots {
    FileURL libraryCaches;
    FileURL libraryLogs;
    FileURL diagnosticReports;
    FileURL systemLogs;
    FileURL simulatorDyldCaches;

    /// The folders of the startup disk that is mounted at `disk`.
    static PrivilegedRoots below(const FileURL &disk);

    /// The folders of this machine.
    static const PrivilegedRoots &ofThisMachine();

    /// All five in fixed order, which decides between roots that are equally specific.
    std::array<FileURL, 5> all() const {
        return {libraryCaches, libraryLogs, diagnosticReports, systemLogs, simulatorDyldCaches};
    }
};

} // namespace klarbox
