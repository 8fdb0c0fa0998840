#include "KlarboxKit/Helper/PrivilegedRoots.hpp"

namespace klarbox {

PrivilegedRoots PrivilegedRoots::below(const FileURL &disk) {
    return {
        .libraryCaches = disk.appending("Library/Caches", true),
        .libraryLogs = disk.appending("Library/Logs", true),
        .diagnosticReports = disk.appending("Library/Logs/DiagnosticReports", true),
        .systemLogs = disk.appending("private/var/log", true),
        .simulatorDyldCaches = disk.appending("Library/Developer/CoreSimulator/Caches/dyld", true),
    };
}

const PrivilegedRoots &PrivilegedRoots::ofThisMachine() {
    static const PrivilegedRoots roots = below(FileURL("/", true));
    return roots;
}

} // namespace klarbox
