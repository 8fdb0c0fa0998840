#pragma once

#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// New scanners of every category, in catalog order, over these system folders, the folder whose
/// entries are the mounted volumes, and where the startup disk is mounted.
ScannerList defaultScanners(const PrivilegedRoots &roots, const FileURL &volumesDirectory,
                            const FileURL &disk = FileURL("/"));

/// The same over the folders of this machine.
ScannerList defaultScanners();

} // namespace klarbox
