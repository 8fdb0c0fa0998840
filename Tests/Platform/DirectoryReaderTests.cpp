#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

thread_local int lotsUntilFault = -1; // below 0: never
thread_local int fault = 0;

} // namespace

extern "C" ssize_t getdents64(int fd, void *buffer, size_t size) noexcept {
    if (lotsUntilFault-- == 0) {
        errno = fault;
        return -1;
    }
    return ::syscall(SYS_getdents64, fd, buffer, size);
}

namespace klarbox::test {
namespace {

/// Lists a folder, with a fault instead of the third lot. Answers the inode of each name.
std::multimap<std::string, std::uint64_t> listing(DirectoryReader &reader, const FileURL &folder,
                                                  int code = 0) {
    const UniqueFD opened(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fault = code;
    lotsUntilFault = code == 0 ? -1 : 2;
    std::multimap<std::string, std::uint64_t> inodes;
    while (reader.fill(opened.get())) {
        for (DirectoryEntry entry; reader.next(entry);) {
            inodes.emplace(entry.name, entry.inode);
            struct stat st {};
            EXPECT_EQ(::fstatat(opened.get(), entry.name, &st, AT_SYMLINK_NOFOLLOW), 0);
            EXPECT_TRUE(entry.kind == DirectoryEntry::Kind::unknown ||
                        (entry.kind == DirectoryEntry::Kind::directory) == S_ISDIR(st.st_mode))
                << entry.name;
        }
    }
    return inodes;
}

TEST(DirectoryReader, listsLargeFoldersWithoutLossOrRepetition) {
    const TemporaryTree tree{
        {"folder/x", bytes(1)}, {"file", bytes(1)}, {"linked", link("folder")},
        {"...", bytes(1)},      {"..a", bytes(1)},  {".b", bytes(1)},
    };
    for (std::size_t i = 1; i < 20'000; ++i) {
        const auto name = std::to_string(i) + std::string(i % 250, '.');
        std::filesystem::create_hard_link((tree / "file").path(), (tree / name).path());
    }
    std::multimap<std::string, std::uint64_t> expected;
    for (const auto &entry : std::filesystem::directory_iterator(tree.root().path())) {
        struct stat st {};
        ASSERT_EQ(::lstat(entry.path().c_str(), &st), 0);
        expected.emplace(entry.path().filename(), st.st_ino);
    }
    DirectoryReader reader;
    EXPECT_EQ(listing(reader, tree.root()), expected);
    EXPECT_EQ(reader.error(), 0);
    EXPECT_EQ(listing(reader, tree.root(), EINTR), expected);
    EXPECT_EQ(reader.error(), 0);

    // A listing that breaks off does not look like one that is complete.
    const auto some = listing(reader, tree.root(), EIO);
    EXPECT_TRUE(!some.empty() && some.size() < expected.size());
    EXPECT_EQ(reader.error(), EIO);
}

} // namespace
} // namespace klarbox::test
