#pragma once

#include "KlarboxApp/Scan/ScanRequest.hpp"
#include "KlarboxCLI/Terminal.hpp"

#include <string>
#include <vector>

namespace klarbox {

/// What `scan` and `clean` are told on the command line, as written there.
struct ScanOptions {
    std::string home;            ///< empty: the person's own
    std::string disk = "/";      ///< where the startup disk is mounted
    std::string settingsFile;    ///< empty: the saved settings
    std::string environmentFile; ///< empty: live facts only
    std::string minimumSize = "1MB";
    std::vector<std::string> categories; ///< empty: all
    bool json = false;
    bool noProgress = false;
    ColorChoice color = ColorChoice::automatic;

    /// What they ask for. Throws `UsageError` for a minimum size that is none: people write "0",
    /// "500kB", "1MB" (base 1000), or a plain number of bytes.
    ScanRequest request() const;
};

} // namespace klarbox
