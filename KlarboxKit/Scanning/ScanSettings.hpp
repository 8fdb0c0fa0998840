#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// The person's part of a scan's configuration. Paths are as typed: "~", "~/…", or any other.
struct ScanSettings {
    std::vector<std::string> projectRoots;  ///< folders that hold code projects
    bool includeNodeModules;                ///< whether projects' dependency folders are offered
    std::int64_t staleProjectDays;          ///< days without change after which a project is stale
    std::vector<std::string> excludedPaths; ///< nothing that touches one of these is ever offered

    bool operator==(const ScanSettings &) const = default;

    static constexpr std::array<std::string_view, 13> defaultProjectRoots{
        "~/Developer",
        "~/Projects",
        "~/projects",
        "~/code",
        "~/Code",
        "~/dev",
        "~/src",
        "~/work",
        "~/Sites",
        "~/Documents/GitHub",
        "~/AndroidStudioProjects",
        "~/StudioProjects",
        "~/Unity",
    };

    /// A JSON object with the four keys named as the fields, in their order.
    std::string encoded() const;

    /// Reads what `encoded` writes; unknown keys are ignored. Throws `PlatformError` that names the
    /// key for a missing key or a value of the wrong type; nothing is ever filled in.
    static ScanSettings decode(std::string_view json);
};

} // namespace klarbox
