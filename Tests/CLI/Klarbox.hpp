#pragma once

#include "Demo/DemoWorld.hpp"
#include "Tests/Support/Programs.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <string>

#include <nlohmann/json.hpp>

namespace klarbox::test {

/// How the built application is started in a folder that is its home folder too. Arguments and
/// redirections are written as for a shell.
Launch klarboxIn(const FileURL &home, const std::string &arguments);

/// Runs klarbox without a terminal and with nothing on standard input.
Outcome runKlarbox(const FileURL &home, const std::string &arguments);

/// Runs klarbox on a terminal of its own, typing `early` at once and an answer at each of its
/// questions; `out` is what the terminal showed.
Outcome runKlarboxOnTerminal(const FileURL &home, const std::string &arguments,
                             const std::vector<std::string> &answers, int columns = 80,
                             const std::string &early = "");

/// A demo world of its own.
struct TemporaryDemoWorld {
    TemporaryTree folder{TemporaryTree::Medium::memoryIfPossible, {}};
    demo::DemoWorld world = demo::makeDemoWorld(folder / "world");
    /// What makes klarbox look at this world.
    std::string options = " --home world/disk/Users/ann --disk world/disk --settings "
                          "world/settings.json --environment world/environment.json ";

    Outcome run(const std::string &command) const {
        return runKlarbox(folder.root(), command + options);
    }
};

/// Adds a brew that does what the cases of a shell say about its arguments, and "environment.json",
/// in which it is the only tool.
void addBrew(const TemporaryTree &tree, const std::string &cases);

inline nlohmann::json document(const Outcome &run) {
    return nlohmann::json::parse(run.out);
}

/// The identifiers of all items in a scan's document, in order, a line each, with `prefix` taken
/// out of paths.
std::string itemIDs(const nlohmann::json &document, const std::string &prefix = "");

} // namespace klarbox::test
