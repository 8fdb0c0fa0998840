#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
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

UniqueFD opened(const FileURL &folder) {
    return UniqueFD(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Each name with how often it was listed.
std::map<std::string, int> listing(DirectoryReader &reader, int fd) {
    std::map<std::string, int> names;
    while (reader.fill(fd)) {
        for (DirectoryEntry entry; reader.next(entry);) {
            ++names[entry.name];
        }
    }
    return names;
}

TEST(DirectoryReader, listsLargeFoldersWithoutLossOrRepetition) {
    const TemporaryTree tree{{"0", bytes(1)}};
    std::map<std::string, int> expected{{"0", 1}};
    for (int i = 1; i < 20'000; ++i) {
        auto name = std::to_string(i) + std::string(static_cast<std::size_t>(i % 250), '.');
        ASSERT_EQ(::link((tree / "0").path().c_str(), (tree / name).path().c_str()), 0);
        expected.emplace(std::move(name), 1);
    }
    const auto folder = opened(tree.root());
    DirectoryReader reader;
    EXPECT_EQ(listing(reader, folder.get()), expected);
    EXPECT_EQ(reader.error(), 0);

    // A listing that breaks off does not look like one that is complete.
    ASSERT_EQ(::lseek(folder.get(), 0, SEEK_SET), 0);
    fault = EIO;
    lotsUntilFault = 2;
    const auto some = listing(reader, folder.get());
    EXPECT_TRUE(!some.empty() && some.size() < expected.size());
    EXPECT_EQ(reader.error(), EIO);

    ASSERT_EQ(::lseek(folder.get(), 0, SEEK_SET), 0);
    fault = EINTR;
    lotsUntilFault = 2;
    EXPECT_EQ(listing(reader, folder.get()), expected);
}

TEST(DirectoryReader, tellsFoldersFromTheRest) {
    const TemporaryTree tree{
        {"folder/x", bytes(1)}, {"file", bytes(1)}, {"linked", link("folder")},
        {"...", bytes(1)},      {"..a", bytes(1)},  {".b", bytes(1)},
    };
    const auto folder = opened(tree.root());
    DirectoryReader reader;
    std::size_t count = 0;
    while (reader.fill(folder.get())) {
        for (DirectoryEntry entry; reader.next(entry); ++count) {
            struct stat st {};
            ASSERT_EQ(::fstatat(folder.get(), entry.name, &st, AT_SYMLINK_NOFOLLOW), 0);
            EXPECT_EQ(entry.inode, st.st_ino) << entry.name;
            EXPECT_TRUE(entry.kind == DirectoryEntry::Kind::unknown ||
                        (entry.kind == DirectoryEntry::Kind::directory) == S_ISDIR(st.st_mode))
                << entry.name;
        }
    }
    EXPECT_EQ(count, 6U);
    EXPECT_FALSE(reader.fill(-1));
    EXPECT_EQ(reader.error(), EBADF);
}

} // namespace
} // namespace klarbox::test
