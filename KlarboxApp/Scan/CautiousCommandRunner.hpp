#pragma once

#include "KlarboxKit/Commands/CommandRunning.hpp"
#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <chrono>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

namespace klarbox {

/// Runs no program that lies in one of some folders, or that a link there leads to: what others put
/// there would run as whoever only wanted to look. But a program that the person named is one that
/// the person means. Safe from any thread.
class CautiousCommandRunner final : public CommandRunning {
public:
    /// Where tools are, by their names.
    using Locator = decltype(ScanEnvironment::locateTool);

    /// `named` is empty when no programs were named.
    CautiousCommandRunner(std::shared_ptr<const CommandRunning> base,
                          const std::vector<FileURL> &folders, Locator named);

    CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout,
                      std::stop_token stop) const override;

private:
    std::shared_ptr<const CommandRunning> base_;
    std::vector<std::string> folders_;
    Locator named_;
};

} // namespace klarbox
