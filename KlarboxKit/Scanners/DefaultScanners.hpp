#pragma once

#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// New scanners of every category, in catalog order, over these system folders and the folder whose
/// entries are the mounted volumes.
ScannerList defaultScanners(const PrivilegedRoots &roots, const FileURL &volumesDirectory);

/// The same over the folders of this machine.
ScannerList defaultScanners();

} // namespace klarbox
