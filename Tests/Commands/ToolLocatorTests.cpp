#include "KlarboxKit/Commands/ToolLocator.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <cstdlib>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(ToolLocator, takesTheFirstExecutableFileInTheOrderOfTheFolders) {
    const auto program = [](const char *path) {
        return Entry{path, text("#!/bin/sh\n"), std::nullopt, 0755};
    };
    const TemporaryTree tree{
        {"home/.local/bin/a", directory()}, // folders have the mode, but are no tools
        {"home/.bun/bin/a", text(""), std::nullopt, 0644},
        {"home/.local/bin/b", link("../../../extra/a")},
        {"home/.local/bin/c", link("dangling")},
        program("home/Library/pnpm/a"),
        program("extra/a"),
        program("home/.bun/bin/b"),
        program("path/d"),
        program("extra/e"),
        program("more/e"),
        program("extra/sh")};
    ::setenv("HOME", (tree / "home").path().c_str(), 1);
    ::setenv("PATH", (tree / "path").path().c_str(), 1);
    const std::vector<std::string> extra{(tree / "extra").path() + "/", (tree / "more").path()};
    const std::pair<const char *, std::optional<FileURL>> cases[] = {
        {"a", tree / "home/Library/pnpm/a"},
        {"b", tree / "home/.local/bin/b"},
        {"c", std::nullopt},
        {"d", std::nullopt},
        {"e", tree / "extra/e"},
        {"sh", FileURL("/usr/bin/sh")},
        {"", std::nullopt},
    };
    for (const auto &[name, expected] : cases) {
        EXPECT_EQ(ToolLocator::find(name, extra), expected) << name;
    }
    EXPECT_EQ(ToolLocator::find("e"), std::nullopt);
}

} // namespace
} // namespace klarbox::test
