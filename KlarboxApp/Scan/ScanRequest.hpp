#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace klarbox {

/// What a person wants to be scanned, and how.
struct ScanRequest {
    std::string home;            ///< empty: the person's own, or the only one of another disk
    std::string disk = "/";      ///< where the startup disk is mounted
    std::string settingsFile;    ///< empty: the saved settings
    std::string environmentFile; ///< empty: live facts only
    std::int64_t minimumSize = 1'000'000; ///< bytes
    std::vector<std::string> categories;  ///< identifiers; empty: all
};

} // namespace klarbox
