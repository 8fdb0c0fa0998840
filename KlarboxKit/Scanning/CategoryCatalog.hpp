#pragma once

#include "KlarboxKit/Model/CategoryInfo.hpp"

#include <array>
#include <string>
#include <vector>

/// Every category there is, in the order in which they are scanned, shown and claim paths.
namespace klarbox::CategoryCatalog {

const CategoryInfo &userCaches();
const CategoryInfo &logs();
const CategoryInfo &trash();
const CategoryInfo &mailDownloads();
const CategoryInfo &installers();
const CategoryInfo &systemCaches();
const CategoryInfo &systemLogs();
const CategoryInfo &systemCrashReports();
const CategoryInfo &xcode();
const CategoryInfo &simulators();
const CategoryInfo &simulatorDyldCaches();
const CategoryInfo &packageCaches();
const CategoryInfo &projectArtifacts();
const CategoryInfo &docker();
const CategoryInfo &homebrew();
const CategoryInfo &aiSessions();
const CategoryInfo &orphanedContainers();
const CategoryInfo &brokenPreferences();
const CategoryInfo &brokenLaunchAgents();

/// All of them, in order.
const std::array<CategoryInfo, 19> &all();

/// Their identifiers, in the same order.
std::vector<std::string> identifiers();

} // namespace klarbox::CategoryCatalog
