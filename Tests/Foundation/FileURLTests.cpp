#include "KlarboxKit/Foundation/CurrentDirectory.hpp"
#include "KlarboxKit/Foundation/FileURL.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(FileURL, takesPathsApartWithoutTouchingTheDisk) {
    const struct {
        std::string_view path;
        std::string_view standardized;
        std::string_view last;
        std::string_view stem;
        std::string_view extension;
        std::string_view parent;
    } cases[] = {
        {"/", "/", "/", "/", "", "/"},
        {"///", "/", "/", "/", "", "/"},
        {"/a/b.tar.gz//", "/a/b.tar.gz", "b.tar.gz", "b.tar", "gz", "/a"},
        {"/a//b", "/a/b", "b", "b", "", "/a"},
        {"//a", "/a", "a", "a", "", "/"},
        {"/a/.plist", "/a/.plist", ".plist", "", "plist", "/a"},
        {"/a/b.", "/a/b.", "b.", "b", "", "/a"},
        {"/a.b/c", "/a.b/c", "c", "c", "", "/a.b"},
        {"/a/./b/../c/.", "/a/c", ".", "", "", "/a/./b/../c"},
        {"/../..", "/", "..", ".", "", "/.."},
        {"/a/..", "/", "..", ".", "", "/a"},
        {"/a/.../..b", "/a/.../..b", "..b", ".", "b", "/a/..."},
        {"/\xFF\n/ ", "/\xFF\n/ ", " ", " ", "", "/\xFF\n"},
    };
    for (const auto &[path, standardized, last, stem, extension, parent] : cases) {
        const FileURL url(path);
        EXPECT_EQ(url.standardized().path(), standardized) << path;
        EXPECT_EQ(url.lastComponent(), last) << path;
        EXPECT_EQ(url.stem(), stem) << path;
        EXPECT_EQ(url.extension(), extension) << path;
        EXPECT_EQ(url.parent(), FileURL(parent)) << path;
    }
}

TEST(FileURL, marksDirectoriesAndComparesPathsAlone) {
    EXPECT_TRUE(FileURL("/a/").isDirectory());
    EXPECT_TRUE(FileURL("/").isDirectory());
    EXPECT_TRUE(FileURL("/a/b").parent().isDirectory());
    EXPECT_TRUE(FileURL("/a/../b/").standardized().isDirectory());
    EXPECT_FALSE(FileURL("/a/b/").appending("c").isDirectory());
    EXPECT_TRUE(FileURL("/a").appending("b/").isDirectory());
    EXPECT_TRUE(FileURL("/a").appending("b", true).isDirectory());
    EXPECT_FALSE(FileURL("/a").isDirectory());
    EXPECT_EQ(FileURL("/a/"), FileURL("/a"));
    EXPECT_NE(FileURL("/a"), FileURL("/A"));
    EXPECT_NE(FileURL("/a/."), FileURL("/a"));

    EXPECT_EQ(FileURL("///").path(), "/");
    EXPECT_EQ(FileURL("//a//b///").path(), "//a//b");
    EXPECT_EQ(FileURL("/").appending("a/../b").path(), "/a/../b");
    EXPECT_EQ(FileURL("/a").appending("/b//").path(), "/a//b");
    EXPECT_EQ(FileURL("a/b").path(), currentDirectory() + "/a/b");
    EXPECT_EQ(FileURL("").path(), currentDirectory());
}

} // namespace
} // namespace klarbox::test
