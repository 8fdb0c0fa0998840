#pragma once

#include "Tests/Support/DemoWorld.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace klarbox::test {

/// What one run of the built application came to.
struct KlarboxRun {
    int exitCode; ///< or 128 and the signal that ended it
    std::string output;
    std::string error;

    nlohmann::json json() const { return nlohmann::json::parse(output); }
};

/// Runs klarbox with nothing on standard input, a home and a configuration folder of their own, and
/// no terminal. `whileRunning` is called with its process identifier once it has started.
KlarboxRun runKlarbox(const std::vector<std::string> &arguments,
                      const std::function<void(int)> &whileRunning = {});

/// Runs klarbox on a terminal of its own, typing `input` into it; `output` is what the terminal
/// showed.
KlarboxRun runKlarboxOnTerminal(const std::vector<std::string> &arguments, const std::string &input,
                                unsigned short columns = 80);

/// A demo world of its own.
struct TemporaryDemoWorld {
    TemporaryTree folder{TemporaryTree::Medium::memoryIfPossible, {}};
    DemoWorld world = makeDemoWorld(folder / "world");

    /// `arguments` and the options that make klarbox look at this world.
    std::vector<std::string> arguments(std::vector<std::string> arguments) const;
};

/// The identifiers of all items in a scan's document, in order, with `prefix` taken out of paths.
std::vector<std::string> itemIDs(const nlohmann::json &document, const std::string &prefix = "");

} // namespace klarbox::test
