#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Safety/FS.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <memory>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;

TEST(FS, listsChildrenByTheBytesOfTheirNames) {
    const TemporaryTree tree{{"file", bytes(1)}};
    for (const auto *name : {"b", ".DS_Store", "a", "B", ".hidden", "é", "\xff", ".ds_store"}) {
        tree.add({std::string("f/") + name, bytes(1)});
    }
    EXPECT_THAT(FS::children(tree / "f"),
                ElementsAre(tree / "f/.ds_store", tree / "f/.hidden", tree / "f/B", tree / "f/a",
                            tree / "f/b", tree / "f/é", tree / "f/\xff"));
    EXPECT_THROW(FS::children(tree / "missing"), PlatformError);
    EXPECT_THROW(FS::children(tree / "file"), PlatformError);
}

TEST(FS, shortensOnlyWhatLiesBelowTheHome) {
    const FileURL home("/Users/ann");
    EXPECT_EQ(FS::tildePath(FileURL("/Users/ann/Library/Caches"), home), "~/Library/Caches");
    for (const auto *path : {"/Users/ann", "/Users/anna/x", "/x"}) {
        EXPECT_EQ(FS::tildePath(FileURL(path), home), path);
    }
}

TEST(FS, findsAMissingPermissionDownTheChainOfCauses) {
    const auto nested = [](int outer, int inner, int innermost) {
        return PlatformError(
            PlatformError::Domain::cocoa, outer, "outer",
            std::make_shared<const PlatformError>(PlatformError::cocoa(inner, "inner", innermost)));
    };
    const std::pair<PlatformError, bool> cases[] = {
        {PlatformError::posix(EACCES), true},
        {PlatformError::posix(EPERM), true},
        {PlatformError::posix(ENOENT), false},
        {PlatformError::cocoa(257, ""), true},
        // The numbers mean different things in the two domains.
        {PlatformError::posix(257), false},
        {PlatformError::cocoa(EPERM, ""), false},
        {nested(512, 256, EACCES), true},
        {nested(512, 257, 0), true},
        {nested(512, 256, EIO), false},
    };
    for (const auto &[error, expected] : cases) {
        EXPECT_EQ(FS::isPermissionError(error), expected) << error.code();
    }
    EXPECT_FALSE(FS::isPermissionError(std::runtime_error("EACCES")));
}

} // namespace
} // namespace klarbox::test
