#include "KlarboxKit/Platform/PlatformError.hpp"
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
using namespace std::chrono_literals;

TEST(FS, listsChildrenByTheBytesOfTheirNames) {
    const TemporaryTree tree{
        {"f/b", bytes(1)},    {"f/.DS_Store", bytes(1)},  {"f/a", bytes(1)},
        {"f/B", bytes(1)},    {"f/.hidden", bytes(1)},    {"f/é", bytes(1)},
        {"f/\xff", bytes(1)}, {"f/.ds_store", bytes(1)},  {"file", bytes(1)},
        {"link", link("f")},  {"dangling", link("none")},
    };
    EXPECT_THAT(FS::children(tree / "f"),
                ElementsAre(tree / "f/.ds_store", tree / "f/.hidden", tree / "f/B", tree / "f/a",
                            tree / "f/b", tree / "f/é", tree / "f/\xff"));
    EXPECT_THROW(FS::children(tree / "missing"), PlatformError);
    EXPECT_THROW(FS::children(tree / "file"), PlatformError);

    EXPECT_TRUE(FS::isRealDirectory(tree / "f"));
    for (const auto *name : {"file", "link", "dangling", "missing", "file/x"}) {
        EXPECT_FALSE(FS::isRealDirectory(tree / name)) << name;
    }
}

TEST(FS, readsTheDateOfALinkItself) {
    const FileManager::Date linked(1'000'000s);
    const TemporaryTree tree{
        {"file", bytes(1), FileManager::Date(2'000'000s)},
        {"link", link("file"), linked},
        {"dangling", link("none"), linked},
    };
    EXPECT_EQ(FS::modificationDate(tree / "link"), linked);
    EXPECT_EQ(FS::modificationDate(tree / "dangling"), linked);
    EXPECT_EQ(FS::modificationDate(tree / "missing"), std::nullopt);
}

TEST(FS, shortensOnlyWhatLiesBelowTheHome) {
    const FileURL home("/Users/ann");
    const std::pair<const char *, const char *> cases[] = {
        {"/Users/ann/Library/Caches", "~/Library/Caches"},
        {"/Users/ann", "/Users/ann"},
        {"/Users/anna/x", "/Users/anna/x"},
        {"/x", "/x"},
    };
    for (const auto &[path, shown] : cases) {
        EXPECT_EQ(FS::tildePath(FileURL(path), home), shown);
    }
}

TEST(FS, findsAMissingPermissionDownTheChainOfCauses) {
    const auto nested = [](int outer, int inner, int innermost) {
        return PlatformError(
            PlatformError::Domain::cocoa, outer, "outer",
            std::make_shared<const PlatformError>(PlatformError::cocoa(inner, "inner", innermost)));
    };
    EXPECT_TRUE(FS::isPermissionError(PlatformError::posix(EACCES)));
    EXPECT_TRUE(FS::isPermissionError(PlatformError::posix(EPERM)));
    EXPECT_FALSE(FS::isPermissionError(PlatformError::posix(ENOENT)));
    EXPECT_TRUE(FS::isPermissionError(PlatformError::cocoa(257, "")));
    // The numbers mean different things in the two domains.
    EXPECT_FALSE(FS::isPermissionError(PlatformError::posix(257)));
    EXPECT_FALSE(FS::isPermissionError(PlatformError::cocoa(EPERM, "")));
    EXPECT_TRUE(FS::isPermissionError(PlatformError::cocoa(513, "", EPERM)));
    EXPECT_FALSE(FS::isPermissionError(PlatformError::cocoa(513, "", ENOENT)));
    EXPECT_TRUE(FS::isPermissionError(nested(512, 256, EACCES)));
    EXPECT_TRUE(FS::isPermissionError(nested(512, 257, 0)));
    EXPECT_FALSE(FS::isPermissionError(nested(512, 256, EIO)));
    EXPECT_FALSE(FS::isPermissionError(std::runtime_error("EACCES")));
}

} // namespace
} // namespace klarbox::test
