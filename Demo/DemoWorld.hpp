#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

namespace klarbox::demo {

/// A small Mac in a folder: a home of some thousand entries, system folders, a second volume, fake
/// tools, and the settings and environment that make a scan of it the same everywhere.
struct DemoWorld {
    FileURL root;

    FileURL disk() const { return root.appending("disk"); }
    FileURL home() const { return root.appending("disk/Users/ann"); }
    FileURL settings() const { return root.appending("settings.json"); }
    FileURL environment() const { return root.appending("environment.json"); }
    /// Where the fake tools note what they were asked, one line per call.
    FileURL toolLog() const { return root.appending("tools.log"); }
};

/// Fills `root`, an empty or missing folder, with the demo world. Throws when the folder holds
/// something already or cannot be written.
DemoWorld makeDemoWorld(const FileURL &root);

} // namespace klarbox::demo
