#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <optional>
#include <string>

namespace klarbox {

/// What an application bundle (a folder called NAME.app) says of itself.
struct ApplicationBundle {
    std::string identifier;
    std::string name;

    /// Reads the bundle's information property list, following links. Nothing for what is no
    /// working application: without a list, or with one that is damaged or has no identifier.
    /// Throws `PlatformError` when there is a list that cannot be read. Safe from any thread.
    static std::optional<ApplicationBundle> read(const FileURL &folder);
};

} // namespace klarbox
