#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <string>
#include <vector>

namespace klarbox {

/// Every place that an absolute path leads through, by folders that are no links: the folders, the
/// links that are met and where they lead, and the file itself last, also when nothing is there.
/// The path is followed as the system does whose disk is mounted at `disk`: no link leads out of
/// that. Only links are read. Links without end are given up where the system gives them up. Safe
/// from any thread.
std::vector<std::string> placesOnTheWay(const FileURL &file, const FileURL &disk = FileURL("/"));

} // namespace klarbox
