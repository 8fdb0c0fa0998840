#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <climits>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using FileType = FileManager::FileType;

struct Failure {
    int code;  ///< Cocoa's
    int cause; ///< errno
};

void expectFailure(const std::function<void()> &action, Failure expected, std::string_view named) {
    try {
        action();
        ADD_FAILURE() << named << ": no failure";
    } catch (const PlatformError &error) {
        EXPECT_EQ(error.domain(), PlatformError::Domain::cocoa) << named;
        EXPECT_EQ(error.code(), expected.code) << named;
        EXPECT_THAT(error.what(), HasSubstr(named));
        ASSERT_NE(error.cause(), nullptr) << named;
        EXPECT_EQ(error.cause()->domain(), PlatformError::Domain::posix) << named;
        EXPECT_EQ(error.cause()->code(), expected.cause) << named;
    }
}

TEST(FileManager, saysWhyReadingFailed) {
    const TemporaryTree tree{
        {"file", text("12345")}, {"dangling", link("gone")}, {"loop", link("loop")},
        {"file\n", text("x")},   {"folder/x", bytes(1)},
    };
    ASSERT_EQ(::mkfifo((tree / "fifo").path().c_str(), 0600), 0);
    const auto huge = tree / "huge";
    ASSERT_EQ(::close(::open(huge.path().c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)), 0);
    ASSERT_EQ(::truncate(huge.path().c_str(), off_t{1} << 40), 0);
    constexpr int noFile = PlatformError::fileReadNoSuchFile;
    constexpr int unknown = PlatformError::fileReadUnknown;
    constexpr int tooLarge = PlatformError::fileReadTooLarge;
    const struct {
        std::string name;
        std::size_t limit;
        Failure asFile;
        Failure asFolder;
    } cases[] = {
        {"missing", 100, {noFile, ENOENT}, {noFile, ENOENT}},
        {"dangling", 100, {noFile, ENOENT}, {noFile, ENOENT}},
        {"file\0"s, 100, {noFile, ENOENT}, {noFile, ENOENT}},
        {"loop", 100, {unknown, ELOOP}, {unknown, ELOOP}},
        {"file/x", 100, {unknown, ENOTDIR}, {unknown, ENOTDIR}},
        {"fifo", 100, {unknown, EINVAL}, {unknown, ENOTDIR}},
        {"file", 4, {tooLarge, EFBIG}, {unknown, ENOTDIR}},
        {"huge", 1 << 20, {tooLarge, EFBIG}, {unknown, ENOTDIR}},
        {std::string(300, 'x'), 100, {unknown, ENAMETOOLONG}, {unknown, ENAMETOOLONG}},
    };
    for (const auto &[name, limit, asFile, asFolder] : cases) {
        const auto url = tree / name;
        const auto shown = name.ends_with('\0') ? "file\\x00" : std::string(url.lastComponent());
        expectFailure([&, most = limit] { FileManager::contents(url, most); }, asFile, shown);
        expectFailure([&] { FileManager::contentsOfDirectory(url); }, asFolder, shown);
    }
    expectFailure([&] { FileManager::contents(tree / "folder"); }, {unknown, EISDIR}, "folder");
    EXPECT_EQ(FileManager::contents(tree / "file", 5), "12345");
    EXPECT_EQ(FileManager::contents(tree / "file\n"), "x");
    // A file that says it is empty is read to its end all the same, and no further than allowed.
    EXPECT_FALSE(FileManager::contents(FileURL("/proc/self/status")).empty());
    expectFailure([] { FileManager::contents(FileURL("/proc/self/status"), 3); }, {tooLarge, EFBIG},
                  "status");
}

TEST(FileManager, saysWhatMayNotBeRead) {
    if (isRoot()) {
        GTEST_SKIP() << "needs an ordinary user";
    }
    const TemporaryTree tree{{"file", bytes(1), {}, 0}, {"folder/x", bytes(1)}};
    ASSERT_EQ(::chmod((tree / "folder").path().c_str(), 0300), 0);
    constexpr Failure denied{PlatformError::fileReadNoPermission, EACCES};
    expectFailure([&] { FileManager::contents(tree / "file"); }, denied, "file");
    expectFailure([&] { FileManager::contentsOfDirectory(tree / "folder"); }, denied, "folder");
}

TEST(FileManager, tellsWhatIsThere) {
    const TemporaryTree tree{
        {"file", bytes(1), FileManager::Date(5s)},
        {"program", bytes(1), {}, 0700},
        {"folder/x", bytes(1)},
        {"linked", link("folder")},
        {"dangling", link("gone")},
    };
    ASSERT_EQ(::mkfifo((tree / "fifo").path().c_str(), 0600), 0);
    const struct {
        std::string name;
        std::optional<FileType> type;
        bool exists;
        bool isDirectory;
        bool isExecutable;
    } cases[] = {
        {"file", FileType::regular, true, false, false},
        {"program", FileType::regular, true, false, true},
        {"folder", FileType::directory, true, true, false},
        {"linked", FileType::symbolicLink, true, true, false},
        {"dangling", FileType::symbolicLink, false, false, false},
        {"fifo", FileType::other, true, false, false},
        {"gone", {}, false, false, false},
        {"file\0"s, {}, false, false, false},
        {"program\0x"s, {}, false, false, false},
    };
    for (const auto &[name, type, exists, isDirectory, isExecutable] : cases) {
        const auto url = tree / name;
        EXPECT_EQ(FileManager::type(url), type) << name;
        EXPECT_EQ(FileManager::exists(url), exists) << name;
        EXPECT_EQ(FileManager::isDirectory(url), isDirectory) << name;
        EXPECT_EQ(FileManager::isExecutableFile(url), isExecutable) << name;
        EXPECT_EQ(FileManager::realPath(url.path()).has_value(), exists) << name;
        EXPECT_EQ(FileManager::modificationDate(url).has_value(), type.has_value()) << name;
    }
    EXPECT_EQ(FileManager::realPath((tree / "linked/x").path()), (tree / "folder/x").path());
    EXPECT_EQ(FileManager::modificationDate(tree / "file"), FileManager::Date(5s));
    EXPECT_THAT(FileManager::contentsOfDirectory(tree.root()),
                UnorderedElementsAre("file", "program", "folder", "linked", "dangling", "fifo"));
}

TEST(FileManager, holdsDatesThatFileSystemsStore) {
    EXPECT_EQ(FileManager::date(-1, 999'999'999), FileManager::Date(-1us));
    EXPECT_EQ(FileManager::date(1, 1), FileManager::Date(1s));
    const auto first = FileManager::date(INT64_MIN, 0);
    const auto last = FileManager::date(INT64_MAX, 999'999'999);
    EXPECT_LT(first, FileManager::date(-62'135'596'800, 0)); // the year 1
    EXPECT_GT(last, FileManager::date(253'402'300'799, 0));  // the end of the year 9999
    // Their distance fits.
    EXPECT_LE(last.time_since_epoch(),
              FileManager::Date::duration::max() + first.time_since_epoch());
}

mode_t mode(const FileURL &url) {
    struct stat st {};
    return ::lstat(url.path().c_str(), &st) == 0 ? st.st_mode & 07777U : 0;
}

TEST(FileManager, replacesFilesAsOneStep) {
    const TemporaryTree tree{
        {"old", text("old"), {}, 0644},
        {"target", text("target")},
        {"linked", link("target")},
        {"dangling", link("gone")},
    };
    for (const auto &name :
         {"old"s, "linked"s, "dangling"s, "new"s, "a/b/new"s, std::string(NAME_MAX, 'x')}) {
        FileManager::writeAtomically(tree / name, "new\0bytes"s);
        EXPECT_EQ(FileManager::contents(tree / name), "new\0bytes"s);
        EXPECT_EQ(FileManager::type(tree / name), FileType::regular) << name;
        EXPECT_EQ(mode(tree / name), 0600U) << name;
    }
    EXPECT_EQ(mode(tree / "a/b"), 0700U);
    EXPECT_EQ(FileManager::contents(tree / "target"), "target");
    EXPECT_FALSE(FileManager::type(tree / "gone"));
    EXPECT_EQ(FileManager::contentsOfDirectory(tree.root()).size(), 7U);

    FileManager::writeAtomically(tree / "old", std::string(100'000, 'x'));
    std::atomic<bool> isDone = false;
    std::jthread writer([&] {
        for (int i = 0; i < 100; ++i) {
            FileManager::writeAtomically(tree / "old",
                                         std::string(100'000, i % 2 == 0 ? 'a' : 'b'));
        }
        isDone = true;
    });
    while (!isDone) {
        const auto read = FileManager::contents(tree / "old");
        ASSERT_EQ(read.size(), 100'000U);
        ASSERT_EQ(read.find_first_not_of(read.front()), std::string::npos);
    }
}

TEST(FileManager, leavesTheOldFileWhenWritingFails) {
    const TemporaryTree tree{
        {"file", text("old")},
        {"folder/x", bytes(1)},
        {"linked", link("gone/a")},
    };
    // The signal that comes with it would end this process.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{.rlim_cur = 1000, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto unchanged = manifest(tree.root());
    std::string deep;
    while (deep.size() < PATH_MAX) {
        deep += "deep/";
    }
    constexpr int unknown = PlatformError::fileWriteUnknown;
    const std::pair<std::string, Failure> cases[] = {
        {"file", {unknown, EFBIG}},
        {"new", {unknown, EFBIG}},
        {"folder", {unknown, EISDIR}},
        {"file/a/b", {unknown, ENOTDIR}},
        {"linked/x", {PlatformError::fileNoSuchFile, ENOENT}},
        {"file\0"s, {PlatformError::fileNoSuchFile, ENOENT}},
        {deep, {unknown, ENAMETOOLONG}},
    };
    for (const auto &[name, failure] : cases) {
        const std::string bytes(failure.cause == EFBIG ? 10'000 : 10, 'x');
        expectFailure([&, &path = name] { FileManager::writeAtomically(tree / path, bytes); },
                      failure, name.substr(0, 4));
        EXPECT_EQ(manifest(tree.root()), unchanged) << name;
    }
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, SIG_DFL);
}

} // namespace
} // namespace klarbox::test
