#include "KlarboxKit/Commands/ToolLocator.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <cstdlib>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(ToolLocator, takesTheFirstExecutableFileInTheOrderOfTheFolders) {
    const auto program = text("#!/bin/sh\n");
    const TemporaryTree tree{
        {"home/.local/bin/tool-a", directory()}, // folders have the mode, but are no tools
        {"home/.bun/bin/tool-a", program, std::nullopt, 0644},
        {"home/Library/pnpm/tool-a", program, std::nullopt, 0755},
        {"extra/tool-a", program, std::nullopt, 0755},
        {"home/.local/bin/tool-b", link("../../../extra/tool-a")},
        {"home/.bun/bin/tool-b", program, std::nullopt, 0755},
        {"home/.local/bin/tool-c", link("dangling")},
        {"path/tool-d", program, std::nullopt, 0755},
        {"extra/tool-e", program, std::nullopt, 0755},
        {"more/tool-e", program, std::nullopt, 0755},
        {"extra/sh", program, std::nullopt, 0755},
    };
    ::setenv("HOME", (tree / "home").path().c_str(), 1);
    ::setenv("PATH", (tree / "path").path().c_str(), 1);
    const std::vector<std::string> extra{(tree / "extra").path() + "/", (tree / "more").path()};

    const struct {
        const char *name;
        std::optional<FileURL> expected;
    } cases[] = {
        {"tool-a", tree / "home/Library/pnpm/tool-a"},
        {"tool-b", tree / "home/.local/bin/tool-b"},
        {"tool-c", std::nullopt},
        {"tool-d", std::nullopt},
        {"tool-e", tree / "extra/tool-e"},
        {"sh", FileURL("/usr/bin/sh")},
        {"", std::nullopt},
    };
    for (const auto &[name, expected] : cases) {
        EXPECT_EQ(ToolLocator::find(name, extra), expected) << name;
    }
    EXPECT_EQ(ToolLocator::find("tool-e"), std::nullopt);
}

} // namespace
} // namespace klarbox::test
