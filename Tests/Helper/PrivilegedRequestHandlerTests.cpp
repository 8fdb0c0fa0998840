#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using Result = PrivilegedRemovalResult;
using enum SafetyViolation;

/// Deletes for real, but fails for entries of these names; may do something before each deletion.
class SelectiveRemover final : public ItemRemover {
public:
    explicit SelectiveRemover(std::set<std::string> failing = {},
                              std::function<void(const FileURL &)> before = {})
        : failing_(std::move(failing)),
          before_(std::move(before)) {}

    void moveToTrash(const FileURL &) const override { throw PlatformError::posix(ENOTSUP); }
    void deletePermanently(const FileURL &url) const override {
        if (before_) {
            before_(url);
        }
        if (failing_.contains(std::string(url.lastComponent()))) {
            throw PlatformError::posix(EBUSY);
        }
        SecureDeleter().deletePermanently(url);
    }

private:
    std::set<std::string> failing_;
    std::function<void(const FileURL &)> before_;
};

PrivilegedRequestHandler
handlerOver(const TemporaryTree &disk,
            std::shared_ptr<const ItemRemover> remover = std::make_shared<SecureDeleter>()) {
    const auto roots = PrivilegedRoots::below(disk.root()).all();
    return {{roots.begin(), roots.end()},
            std::make_shared<SafetyGuard>(disk / "Users/ann"),
            std::move(remover)};
}

Result removed(std::int64_t count, std::int64_t bytes) {
    return {.removedCount = count, .bytes = bytes};
}

/// Everything that the handler refuses: nothing may change on disk.
TEST(PrivilegedRequestHandler, refusesWhatIsNotBelowARoot) {
    const TemporaryTree disk{
        {"Library/Caches/app/x", bytes(4096)},
        {"Library/Caches/app/.git/config", bytes(10)},
        {"Library/Caches/out", link("../../Users/ann")},
        {"Library/Caches/lost", link("nowhere")},
        {"Library/CachesOld/x", bytes(10)},
        {"Library/Logs/DiagnosticReports/a.ips", bytes(10)},
        {"Library/Logs/install.log", bytes(10)},
        {"Users/ann/x", bytes(10)},
        {"library/CACHES", directory()},
    };
    const auto before = manifest(disk.root());
    const auto handler = handlerOver(disk);
    const auto at = [&](const char *path) { return (disk / path).path(); };
    const struct {
        std::string path;
        SafetyViolation violation;
    } cases[] = {
        {"Library/Caches/app", notInsideRoot},
        {"", notInsideRoot},
        {"/", notInsideRoot},
        {disk.root().path(), notInsideRoot},
        {at("Library/Caches/app/x") + std::string("\0y", 2), notInsideRoot},
        {at("Library/Caches/app/x") + std::string("\0", 1), notInsideRoot},
        {at("Library/CachesOld/x"), notInsideRoot},
        {at("Library/Caches/../CachesOld/x"), notInsideRoot},
        {at("Users/ann/x"), notInsideRoot},
        {at("Library"), notInsideRoot},
        {at("Library/Caches"), isRoot},
        {at("Library/Caches") + "/", isRoot},
        {at("Library/Caches/app/.."), isRoot},
        // In any letter case, as on a volume that does not tell the cases apart.
        {at("library/CACHES"), isRoot},
        // The folder is an entry of another root as well, but the most specific one decides.
        {at("Library/Logs/DiagnosticReports"), isRoot},
        {at("Library/Caches/out/x"), symlinkEscape},
        {at("Library/Caches/out/missing"), notFound},
        {at("Library/Caches/missing"), notFound},
        {at("Library/Caches/missing/x"), notFound},
        {at("Library/Caches/lost/x"), notFound},
        {at("Library/Caches/app/x/y"), notFound},
        {at("private/var/log/system.log"), notFound},
        {at("Library/Caches/app/.git"), insideGitDirectory},
        {at("Library/Caches/app/.git/config"), insideGitDirectory},
    };
    for (const auto &[path, violation] : cases) {
        SCOPED_TRACE(path);
        EXPECT_EQ(handler.handle(PrivilegedRequest::removeItem(path)), Result::refused(violation));
        EXPECT_EQ(handler.handle(PrivilegedRequest::removeContents(path)),
                  Result::refused(violation));
    }
    EXPECT_EQ(manifest(disk.root()), before);
}

TEST(PrivilegedRequestHandler, removesAnItemUnderAnyRootAndCountsItsBytes) {
    const TemporaryTree disk{
        {"Library/Caches/folder/deep/x", bytes(10'000)},
        {"Library/Caches/link", link("../../Users/ann")},
        {"Library/Caches/\xff name", bytes(5000)},
        {"Library/Logs/DiagnosticReports/a.ips", bytes(5000)},
        {"Library/Logs/install.log", bytes(5000)},
        {"private/var/log/system.log.0.gz", bytes(5000)},
        {"var", link("private/var")},
        {"Library/Developer/CoreSimulator/Caches/dyld/23A/x", bytes(5000)},
        {"Users/ann/x", bytes(10)},
    };
    const auto handler = handlerOver(disk);
    const auto outside = manifest(disk / "Users");
    // Requested as written, found at its real place.
    const struct {
        const char *written;
        const char *real;
    } cases[] = {
        {"Library/Caches/folder/", "Library/Caches/folder"},
        {"Library/Caches/link", "Library/Caches/link"},
        {"Library/Caches/\xff name", "Library/Caches/\xff name"},
        {"Library/Logs/DiagnosticReports/a.ips", "Library/Logs/DiagnosticReports/a.ips"},
        {"Library//Logs/./install.log", "Library/Logs/install.log"},
        {"var/log/system.log.0.gz", "private/var/log/system.log.0.gz"},
        {"Library/Developer/CoreSimulator/Caches/dyld/23A",
         "Library/Developer/CoreSimulator/Caches/dyld/23A"},
    };
    for (const auto &[written, real] : cases) {
        SCOPED_TRACE(written);
        const auto size = DiskUsage::allocatedSize(disk / real);
        const auto path = disk.root().path() + "/" + written;
        EXPECT_EQ(handler.handle(PrivilegedRequest::removeItem(path)), removed(1, size));
        EXPECT_FALSE(FileManager::type(disk / real));
    }
    EXPECT_EQ(manifest(disk / "Users"), outside);
}

TEST(PrivilegedRequestHandler, takesPathsUpToTheSystemsLimit) {
    for (const std::size_t length : {1023U, 1024U}) {
        const TemporaryTree disk;
        std::string path = (disk / "Library/Caches").path();
        while (path.size() < length - 200) {
            path += "/" + std::string(100, 'd');
        }
        path += "/" + std::string(length - path.size() - 1, 'f');
        ASSERT_EQ(path.size(), length);
        disk.add({path.substr(disk.root().path().size() + 1), bytes(100)});

        const bool fits = length == 1023;
        const auto size = DiskUsage::allocatedSize(FileURL(path));
        EXPECT_EQ(handlerOver(disk).handle(PrivilegedRequest::removeItem(path)),
                  fits ? removed(1, size) : Result::refused(notInsideRoot));
        EXPECT_EQ(FileManager::exists(FileURL(path)), !fits);
    }
}

TEST(PrivilegedRequestHandler, emptiesAFolderAndKeepsIt) {
    const TemporaryTree disk{
        {"Library/Caches/app/.hidden", bytes(5000)},
        {"Library/Caches/app/folder/x", bytes(5000)},
        {"Library/Caches/app/link", link("../../../Users/ann")},
        {"Library/Caches/other", bytes(10)},
        {"Users/ann/x", bytes(10)},
    };
    const auto request = PrivilegedRequest::removeContents((disk / "Library/Caches/app").path());
    const auto size = DiskUsage::allocatedSize(disk / "Library/Caches/app/.hidden") +
                      DiskUsage::allocatedSize(disk / "Library/Caches/app/folder") +
                      DiskUsage::allocatedSize(disk / "Library/Caches/app/link");
    const auto handler = handlerOver(disk);
    EXPECT_EQ(handler.handle(request), removed(3, size));
    EXPECT_EQ(handler.handle(request), Result{});
    EXPECT_TRUE(FileManager::isDirectory(disk / "Library/Caches/app"));
    EXPECT_TRUE(FileManager::exists(disk / "Library/Caches/other"));
    EXPECT_TRUE(FileManager::exists(disk / "Users/ann/x"));
}

TEST(PrivilegedRequestHandler, emptiesOnlyRealFolders) {
    const TemporaryTree disk{
        {"Library/Caches/file", bytes(10)},
        {"Library/Caches/app/x", bytes(10)},
        {"Library/Caches/link", link("app")},
    };
    const auto before = manifest(disk.root());
    for (const auto *path : {"Library/Caches/file", "Library/Caches/link"}) {
        EXPECT_EQ(handlerOver(disk).handle(PrivilegedRequest::removeContents((disk / path).path())),
                  Result::failed("Not a folder"));
    }
    EXPECT_EQ(manifest(disk.root()), before);
}

TEST(PrivilegedRequestHandler, foldsTheOutcomesOfEntriesAndNeverStopsAtOne) {
    const TemporaryTree disk{
        {"Library/Caches/app/a", bytes(5000)},
        {"Library/Caches/app/busy", bytes(5000)},
        {"Library/Caches/app/.git/config", bytes(10)},
        {"Library/Caches/app/z", bytes(5000)},
    };
    const auto size = DiskUsage::allocatedSize(disk / "Library/Caches/app/a") +
                      DiskUsage::allocatedSize(disk / "Library/Caches/app/z");
    const auto result =
        handlerOver(disk, std::make_shared<SelectiveRemover>(std::set<std::string>{"busy"}))
            .handle(PrivilegedRequest::removeContents((disk / "Library/Caches/app").path()));
    EXPECT_EQ(result, (Result{.removedCount = 2,
                              .failedCount = 2,
                              .bytes = size,
                              .refusal = insideGitDirectory,
                              .error = PlatformError::posix(EBUSY).message()}));
}

TEST(PrivilegedRequestHandler, reportsAFailedRemoval) {
    const TemporaryTree disk{{"Library/Caches/busy", bytes(10)}};
    EXPECT_EQ(handlerOver(disk, std::make_shared<SelectiveRemover>(std::set<std::string>{"busy"}))
                  .handle(PrivilegedRequest::removeItem((disk / "Library/Caches/busy").path())),
              Result::failed(PlatformError::posix(EBUSY).message()));
}

TEST(PrivilegedRequestHandler, reportsAnUnreadableFolder) {
    if (test::isRoot()) {
        GTEST_SKIP() << "root reads every folder";
    }
    const TemporaryTree disk{
        {"Library/Caches/app", directory(), {}, 0300},
        {"Library/Caches/app/x", bytes(10)},
    };
    const auto result = handlerOver(disk).handle(
        PrivilegedRequest::removeContents((disk / "Library/Caches/app").path()));
    EXPECT_EQ(result.failedCount, 1);
    EXPECT_NE(result.error.value_or("").find("permission"), std::string::npos);
    EXPECT_TRUE(FileManager::exists(disk / "Library/Caches/app/x"));
}

TEST(PrivilegedRequestHandler, doesNotEmptyAnotherFolderOfTheRootThroughALinkSwappedIn) {
    const TemporaryTree disk{
        {"Library/Caches/app/a", bytes(10)},    {"Library/Caches/app/b", bytes(10)},
        {"Library/Caches/other/a", bytes(10)},  {"Library/Caches/other/b", bytes(10)},
        {"Library/Caches/link", link("other")},
    };
    const auto other = manifest(disk / "Library/Caches/other");
    std::atomic<int> deletions = 0;
    const auto swap = [&](const FileURL &url) {
        if (deletions++ == 0) {
            std::filesystem::rename((disk / "Library/Caches/app").path(),
                                    (disk / "Library/Caches/moved").path());
            std::filesystem::rename((disk / "Library/Caches/link").path(), url.parent().path());
        }
    };
    const auto result =
        handlerOver(disk, std::make_shared<SelectiveRemover>(std::set<std::string>{}, swap))
            .handle(PrivilegedRequest::removeContents((disk / "Library/Caches/app").path()));
    EXPECT_EQ(result.removedCount, 0);
    EXPECT_EQ(result.failedCount, 2);
    EXPECT_EQ(result.refusal, symlinkEscape);
    EXPECT_EQ(manifest(disk / "Library/Caches/other"), other);
}

TEST(PrivilegedRequestHandler, countsEveryEntryOnceWhenRequestsOverlap) {
    const TemporaryTree disk;
    for (int i = 0; i < 300; ++i) {
        disk.add({"Library/Caches/app/" + std::to_string(i), bytes(1)});
    }
    const auto handler = handlerOver(disk);
    std::atomic<std::int64_t> removedCount = 0;
    {
        std::vector<std::jthread> clients;
        for (int client = 0; client < 4; ++client) {
            clients.emplace_back([&] {
                removedCount += handler
                                    .perform(PrivilegedRequest::removeContents(
                                        (disk / "Library/Caches/app").path()))
                                    .removedCount;
            });
        }
    }
    EXPECT_EQ(removedCount, 300);
    EXPECT_TRUE(std::filesystem::is_empty((disk / "Library/Caches/app").path()));
}

} // namespace
} // namespace klarbox::test
