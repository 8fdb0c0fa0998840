#pragma once

#include "KlarboxApp/Clean/CleanObstacles.hpp"
#include "KlarboxApp/Environment/InstalledApplications.hpp"
#include "KlarboxApp/Scan/ScanMeter.hpp"
#include "KlarboxApp/Scan/ScanRequest.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"
#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <memory>
#include <stop_token>
#include <vector>

namespace klarbox {

/// Everything that a scan needs, made from a request: input is read and checked here, before any
/// scanner looks at anything.
class ScanSession {
public:
    /// Throws `InputError` for a home that is no folder, an unreadable or wrong settings or
    /// environment file, an unknown category.
    explicit ScanSession(const ScanRequest &request);

    const ScanContext &context() const { return context_; }
    const PrivilegedRoots &roots() const { return roots_; }

    /// Folders that no link below them may lead out of; see `ForeignFolders`.
    std::vector<FileURL> enclosures() const;

    /// What keeps findings from being cleaned by this process.
    CleanObstacles obstacles() const { return CleanObstacles(PrivilegedAccess::way(roots_)); }

    /// Whether applications were taken for installed, in scans of this session, because it is not
    /// known which are.
    bool hasTakenAllForInstalled(const std::vector<CategoryScan> &scans) const;

    /// Scans. Blocks.
    std::vector<CategoryScan> scan(const ScanWatch &watch, std::stop_token stop) const;

private:
    FileURL disk_;
    PrivilegedRoots roots_;
    ScannerList scanners_;
    ScanContext context_;
    std::shared_ptr<const InstalledApplications> applications_;
};

} // namespace klarbox
