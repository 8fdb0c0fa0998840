#pragma once

#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <optional>
#include <string>
#include <utility>

namespace klarbox {

/// "broken-launch-agents": definitions in the person's Library/LaunchAgents whose program, an
/// absolute path on the system's own volume, is gone.
class BrokenLaunchAgentsScanner final : public CategoryScanner {
public:
    /// `disk` is where the startup disk is mounted that the agents belong to. On another disk than
    /// this machine's, a program is gone only when this machine does not have it either.
    explicit BrokenLaunchAgentsScanner(FileURL disk = FileURL("/")) : disk_(std::move(disk)) {}

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

    /// The program that an agent's definition starts: its "Program", or the first of its
    /// "ProgramArguments" when those are texts; nothing without either.
    static std::optional<std::string> program(const PropertyList &agent);

private:
    bool isGone(const FileURL &program) const;

    FileURL disk_;
};

} // namespace klarbox
