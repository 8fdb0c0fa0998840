#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Model/SafetyTier.hpp"

#include <optional>
#include <string_view>

namespace klarbox {

/// The verdict that a folder inside a project can be made again by the tool that made it.
struct ArtifactRule {
    SafetyTier tier;
    std::string_view note; ///< what the folder is and what brings it back; static text

    bool operator==(const ArtifactRule &) const = default;

    /// The rule for a folder, which its name and the marker files around it decide; nothing when it
    /// may hold someone's work. Installed JavaScript packages are not for this to judge. Asks the
    /// disk only when the name is one that build tools use. Safe from any thread.
    static std::optional<ArtifactRule> match(std::string_view name, const FileURL &folder,
                                             const FileURL &parent);

    /// Whether build tools use the name for what they make, markers aside: a change to such a
    /// folder says nothing about anyone's work on a project.
    static bool isArtifactName(std::string_view name);
};

} // namespace klarbox
