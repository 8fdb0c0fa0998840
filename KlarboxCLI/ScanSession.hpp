#pragma once

#include "KlarboxCLI/CleanObstacles.hpp"
#include "KlarboxCLI/InstalledApplications.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/ProgressLine.hpp"
#include "KlarboxCLI/ScanOptions.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"
#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <memory>
#include <vector>

namespace klarbox {

/// Everything that a scan needs, made from the options: input is read and checked here, before any
/// scanner looks at anything.
class ScanSession {
public:
    /// Throws `UsageError` for a home that is no folder, an unreadable or wrong settings or
    /// environment file, a wrong size, an unknown category.
    explicit ScanSession(const ScanOptions &options);

    const ScanContext &context() const { return context_; }
    const PrivilegedRoots &roots() const { return roots_; }

    /// Folders that no link below them may lead out of when their contents are removed: a home that
    /// another user owns, every disk but this machine's own, every volume. Whoever put the links
    /// there may mean no good, and a link that meant a folder of its own disk leads to this
    /// machine's. A person's own home may have its caches on another disk, and is cleaned there.
    std::vector<FileURL> enclosures() const;

    /// What keeps findings from being cleaned by this process.
    CleanObstacles obstacles() const { return CleanObstacles(PrivilegedAccess::way(roots_)); }

    /// What to know about findings of this session's scan that they do not say themselves, in
    /// paragraphs.
    std::vector<std::string> remarks(const std::vector<CategoryScan> &scans) const;

    /// Scans, showing on `progress` which categories run, how many are done and what was found so
    /// far. Blocks.
    std::vector<CategoryScan> scan(ProgressLine &progress, std::stop_token stop) const;

private:
    /// Where what lies there need not be this person's.
    std::vector<FileURL> foreignFolders() const;
    std::vector<std::string> keptBack() const;

    FileURL disk_;
    PrivilegedRoots roots_;
    ScannerList scanners_;
    ScanContext context_;
    std::shared_ptr<const InstalledApplications> applications_;
};

} // namespace klarbox
