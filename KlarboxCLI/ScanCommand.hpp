#pragma once

#include "KlarboxCLI/ScanOptions.hpp"

namespace klarbox {

class Interrupt;

/// `klarbox scan`: scans, prints what was found, removes nothing. Returns the exit code; throws
/// `UsageError`.
int runScan(const ScanOptions &options, Interrupt &interrupt);

} // namespace klarbox
