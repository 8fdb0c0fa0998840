#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

namespace fs = std::filesystem;
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
        EXPECT_EQ(error.cause()->code(), expected.cause) << named;
    }
}

TEST(FileManager, saysWhyReadingFailed) {
    inIsolatedProcess([] {
        becomeOrdinaryUser();
        const TemporaryTree tree{
            {"file", text("12345")},     {"dangling", link("gone")},
            {"loop", link("loop")},      {"file\n", text("x")},
            {"huge", bytes(0)},          {"folder/x", bytes(1)},
            {"closed", bytes(1), {}, 0}, {"unlisted", directory(), {}, 0300},
        };
        ASSERT_EQ(::mkfifo((tree / "fifo").path().c_str(), 0600), 0);
        ASSERT_EQ(::truncate((tree / "huge").path().c_str(), off_t{1} << 40), 0);
        constexpr int noFile = PlatformError::fileReadNoSuchFile;
        constexpr int unknown = PlatformError::fileReadUnknown;
        constexpr int tooLarge = PlatformError::fileReadTooLarge;
        constexpr int denied = PlatformError::fileReadNoPermission;
        const struct {
            std::string name;
            Failure asFile;
            Failure asFolder;
            std::size_t limit = 100;
        } cases[] = {
            {"missing", {noFile, ENOENT}, {noFile, ENOENT}},
            {"dangling", {noFile, ENOENT}, {noFile, ENOENT}},
            {"file\0"s, {noFile, ENOENT}, {noFile, ENOENT}},
            {"loop", {unknown, ELOOP}, {unknown, ELOOP}},
            {"file/x", {unknown, ENOTDIR}, {unknown, ENOTDIR}},
            {"fifo", {unknown, EINVAL}, {unknown, ENOTDIR}},
            {"file", {tooLarge, EFBIG}, {unknown, ENOTDIR}, 4},
            {"huge", {tooLarge, EFBIG}, {unknown, ENOTDIR}, 1 << 20},
            {"closed", {denied, EACCES}, {unknown, ENOTDIR}},
            {"unlisted", {denied, EACCES}, {denied, EACCES}},
            {std::string(300, 'x'), {unknown, ENAMETOOLONG}, {unknown, ENAMETOOLONG}},
        };
        for (const auto &[name, asFile, asFolder, limit] : cases) {
            const auto url = tree / name;
            const auto shown = name.ends_with('\0') ? "file\\x00" : url.lastComponent();
            expectFailure([&, most = limit] { FileManager::contents(url, most); }, asFile, shown);
            expectFailure([&] { FileManager::contentsOfDirectory(url); }, asFolder, shown);
        }
        expectFailure([&] { FileManager::contents(tree / "folder"); }, {unknown, EISDIR}, "folder");
        EXPECT_EQ(FileManager::contents(tree / "file", 5), "12345");
        EXPECT_EQ(FileManager::contents(tree / "file\n"), "x");
        // A file that says it is empty is read to its end all the same, and no further than
        // allowed.
        const FileURL status("/proc/self/status");
        EXPECT_FALSE(FileManager::contents(status).empty());
        expectFailure([&] { FileManager::contents(status, 3); }, {tooLarge, EFBIG}, "status");
    });
}

TEST(FileManager, tellsWhatIsThere) {
    const TemporaryTree tree{
        {"file", bytes(1), Date(5s)}, {"program", bytes(1), {}, 0700}, {"folder/x", bytes(1)},
        {"linked", link("folder")},   {"dangling", link("gone")},
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
    for (const auto *path : {"linked/x", "folder//x", "folder/./x", "linked/../folder/x"}) {
        EXPECT_EQ(FileManager::realPath((tree / path).path()), (tree / "folder/x").path()) << path;
    }
    EXPECT_EQ(FileManager::modificationDate(tree / "file"), Date(5s));
    EXPECT_THAT(FileManager::contentsOfDirectory(tree.root()),
                UnorderedElementsAre("file", "program", "folder", "linked", "dangling", "fifo"));
}

TEST(FileManager, replacesFilesAsOneStep) {
    const TemporaryTree tree{
        {"old", text("old"), {}, 0644},
        {"target", text("target")},
        {"linked", link("target")},
        {"dangling", link("gone")},
        // What a killed writer left is taken away, and nothing else.
        {".klarbox.a1B2c3", bytes(1)},
        {".klarbox.folder/x", bytes(1)},
        {".klarbox.linked", link("target")},
        {".klarbox.longer1", bytes(1)},
        {".klarbox.locked", bytes(1)},
    };
    const UniqueFD writer(::open((tree / ".klarbox.locked").path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(writer.get(), LOCK_EX), 0);
    std::ifstream reader((tree / "old").path());
    if (isRoot()) { // who changes somebody's settings must not take them away
        ASSERT_EQ(::chown((tree / "old").path().c_str(), 12345, 12345), 0);
    }
    for (const auto &name :
         {"old"s, "linked"s, "dangling"s, "new"s, "a/b/new"s, std::string(NAME_MAX, 'x')}) {
        FileManager::writeAtomically(tree / name, "new\0bytes"s);
        EXPECT_EQ(FileManager::contents(tree / name), "new\0bytes"s);
        const auto status = fs::symlink_status((tree / name).path());
        EXPECT_EQ(status.type(), fs::file_type::regular) << name;
        EXPECT_EQ(status.permissions(), fs::perms(name == "old" ? 0644 : 0600)) << name;
    }
    struct stat old {};
    ASSERT_EQ(::stat((tree / "old").path().c_str(), &old), 0);
    EXPECT_EQ(old.st_uid, isRoot() ? 12345U : ::geteuid());
    EXPECT_EQ(fs::status((tree / "a/b").path()).permissions(), fs::perms(0700));
    EXPECT_EQ(FileManager::contents(tree / "target"), "target");
    EXPECT_FALSE(FileManager::type(tree / "gone"));
    EXPECT_FALSE(FileManager::exists(tree / ".klarbox.a1B2c3"));
    EXPECT_EQ(FileManager::contentsOfDirectory(tree.root()).size(), 7U + 4);
    // Whoever is reading the old file meanwhile gets the whole of it.
    EXPECT_EQ(std::string(std::istreambuf_iterator(reader), {}), "old");
}

TEST(FileManager, leavesTheOldFileWhenWritingFails) {
    const TemporaryTree tree{
        {"file", text("old")},
        {"folder/x", bytes(1)},
        {"linked", link("gone/a")},
    };
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
    inIsolatedProcess([&] {
        std::signal(SIGXFSZ, SIG_IGN); // it would end the process
        const rlimit small{1000, 1000};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
        for (const auto &[name, failure] : cases) {
            const std::string bytes(failure.cause == EFBIG ? 10'000 : 10, 'x');
            expectFailure([&, &path = name] { FileManager::writeAtomically(tree / path, bytes); },
                          failure, name.substr(0, 4));
        }
    });
    EXPECT_EQ(manifest(tree.root()), unchanged);
}

} // namespace
} // namespace klarbox::test
