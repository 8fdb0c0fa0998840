#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Helper/HelperService.hpp"
#include "KlarboxKit/Helper/KlarboxHelperXPC.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "Tests/Support/FileSystemCalls.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iterator>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using Result = PrivilegedRemovalResult;
using enum SafetyViolation;

/// Deletes for real, but for the second item of all.
struct SecondIsBusy final : ItemRemover {
    mutable int deletions = 0;

    void moveToTrash(const FileURL &) const override { throw PlatformError::posix(ENOTSUP); }
    void deletePermanently(const FileURL &url) const override {
        if (++deletions == 2) {
            throw PlatformError::posix(EBUSY);
        }
        SecureDeleter().deletePermanently(url);
    }
};

PrivilegedRequestHandler
handlerOver(const TemporaryTree &disk,
            std::shared_ptr<const ItemRemover> remover = std::make_shared<SecureDeleter>()) {
    const auto roots = PrivilegedRoots::below(disk.root()).all();
    return {{roots.begin(), roots.end()},
            std::make_shared<SafetyGuard>(disk / "Users/ann"),
            std::move(remover)};
}

PrivilegedRequest removeContents(const TemporaryTree &disk, const std::string &path) {
    return PrivilegedRequest::removeContents((disk / path).path());
}

Result removed(std::int64_t count, std::int64_t bytes) {
    return {.removedCount = count, .bytes = bytes};
}

/// The same path in so many bytes.
std::string lengthened(std::string path, std::size_t size) {
    return path.append(size - path.size(), '/');
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
        {"Library/Caches/logs/x", bytes(10)},
        {"private/var/log", link("../../Library/Caches/logs")},
    };
    const auto before = manifest(disk.root());
    const auto handler = handlerOver(disk);
    const auto at = [&](const char *path) { return disk.root().path() + "/" + path; };
    const std::pair<std::string, SafetyViolation> cases[] = {
        {"Library/Caches/app", notInsideRoot},
        {"", notInsideRoot},
        {"/", notInsideRoot},
        {at("Library/Caches/app/x") + std::string("\0y", 2), notInsideRoot},
        {lengthened(at("Library/Caches/app/x"), 1024), notInsideRoot},
        {at("Library/CachesOld/x"), notInsideRoot},
        {at("Library/Caches/../CachesOld/x"), notInsideRoot},
        {at("Library"), notInsideRoot},
        {at("Library/Caches"), isRoot},
        {at("Library/Caches/"), isRoot},
        {at("Library/Caches/app/.."), isRoot},
        // In any letter case, as on a volume that does not tell the cases apart.
        {at("library/CACHES"), isRoot},
        // The folder is an entry of another root as well, but the most specific one decides.
        {at("Library/Logs/DiagnosticReports"), isRoot},
        {at("Library/Caches/logs"), isRoot}, // of another root, which is a link
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
    // Requested as written; found at its real place where that is another.
    const std::pair<const char *, const char *> cases[] = {
        {"Library/Caches/folder", ""},
        {"Library/Caches/link", ""},
        {"Library/Caches/\xff name", ""},
        {"Library/Logs/DiagnosticReports/a.ips", ""},
        {"Library//Logs/./install.log", "Library/Logs/install.log"},
        {"var/log/system.log.0.gz", "private/var/log/system.log.0.gz"},
        {"Library/Developer/CoreSimulator/Caches/dyld/23A", ""},
    };
    for (const auto &[written, real] : cases) {
        SCOPED_TRACE(written);
        const auto place = disk / (*real == '\0' ? written : real);
        const auto size = DiskUsage::allocatedSize(place);
        const auto path = lengthened((disk / written).path(), 1023);
        EXPECT_EQ(handler.handle(PrivilegedRequest::removeItem(path)), removed(1, size));
        EXPECT_FALSE(FileManager::type(place));
    }
    EXPECT_EQ(manifest(disk / "Users"), outside);
}

TEST(PrivilegedRequestHandler, emptiesARealFolderWithoutStoppingAtAnEntryAndKeepsIt) {
    const TemporaryTree disk{
        {"Library/Caches/app/.hidden", bytes(5000)},
        {"Library/Caches/app/folder/x", bytes(5000)},
        {"Library/Caches/app/link", link("../../../Users/ann")},
        {"Library/Caches/other", bytes(10)},
        {"Library/Caches/link", link("app")},
        {"Library/Caches/some/a", bytes(5000)},
        {"Library/Caches/some/b", bytes(5000)},
        {"Library/Caches/some/.git/config", bytes(10)},
        {"Library/Caches/some/c", bytes(5000)},
        {"Users/ann/x", bytes(10)},
    };
    const auto handler = handlerOver(disk);
    const auto before = manifest(disk.root());
    for (const auto *path : {"Library/Caches/other", "Library/Caches/link"}) {
        EXPECT_EQ(handler.handle(removeContents(disk, path)), Result::failed("Not a folder"));
    }
    EXPECT_EQ(manifest(disk.root()), before);

    const FileURL entries[] = {disk / "Library/Caches/app/.hidden",
                               disk / "Library/Caches/app/folder"};
    const auto size = DiskUsage::allocatedSize(entries);
    const auto request = removeContents(disk, "Library/Caches/app");
    EXPECT_EQ(handler.handle(request), removed(3, size));
    EXPECT_EQ(handler.handle(request), Result{});
    EXPECT_TRUE(FileManager::isDirectory(disk / "Library/Caches/app"));
    EXPECT_TRUE(FileManager::exists(disk / "Library/Caches/other"));
    EXPECT_TRUE(FileManager::exists(disk / "Users/ann/x"));

    const auto one = DiskUsage::allocatedSize(disk / "Library/Caches/some/a");
    const auto failing = handlerOver(disk, std::make_shared<SecondIsBusy>());
    EXPECT_EQ(failing.handle(removeContents(disk, "Library/Caches/some")),
              (Result{2, 2, 2 * one, insideGitDirectory, PlatformError::posix(EBUSY).message()}));
}

TEST(PrivilegedRequestHandler, tellsAndTouchesNothingBeyondAFolderExchangedAtAnyMoment) {
    const TemporaryTree disk(inMemory, {});
    const std::string outside = "Users/ann/outside";
    const std::string other = "Library/Caches/other";
    for (const auto &folder : {outside, other}) {
        for (const auto *name : {"a", "deepest/a", "deeper/a", "deeper/deepest/a"}) {
            disk.add({fmt::format("{}/{}", folder, name), bytes(1'000'000)});
            disk.add({fmt::format("{}/{}-more/x", folder, name), bytes(1)});
        }
    }
    const auto kept = manifest(disk / outside) + manifest(disk / other);
    const struct {
        PrivilegedRequest (*request)(std::string);
        std::string asked;     ///< after app
        std::string exchanged; ///< the folder that takes turns with a link
        std::string leadsTo;
    } attacks[] = {
        {PrivilegedRequest::removeContents, "", "", outside},
        {PrivilegedRequest::removeContents, "", "", other},
        {PrivilegedRequest::removeContents, "", "/deeper", outside},
        {PrivilegedRequest::removeContents, "/deeper", "", outside},
        {PrivilegedRequest::removeItem, "/a", "", outside},
        {PrivilegedRequest::removeItem, "/deeper", "", outside},
        {PrivilegedRequest::removeItem, "/deeper/deepest", "/deeper", outside},
        {PrivilegedRequest::removeItem, "-alias/deeper/deepest", "/deeper", outside},
    };
    const auto handler = handlerOver(disk);
    const auto app = (disk / "Library/Caches/app").path();
    for (const auto &attack : attacks) {
        for (const int lasting : {1, 4, INT_MAX}) {
            SCOPED_TRACE(fmt::format("app{} while app{} is exchanged for {} moments with {}",
                                     attack.asked, attack.exchanged, lasting, attack.leadsTo));
            int removals = 0;
            const auto exchange = [&] {
                ::renameat2(AT_FDCWD, (app + attack.exchanged).c_str(), AT_FDCWD,
                            (app + "-link").c_str(), RENAME_EXCHANGE);
            };
            const int moments = atEveryMoment(lasting, exchange, [&](const auto &begin) {
                for (const auto *name : {"", "-alias", "-link"}) {
                    std::filesystem::remove_all(app + name);
                }
                for (const auto *name : {"a", "deeper/a", "deeper/deepest/a"}) {
                    disk.add({fmt::format("Library/Caches/app/{}", name), bytes(5000)});
                }
                disk.add({"Library/Caches/app-alias", link("app")});
                disk.add({"Library/Caches/app-link",
                          link((disk / attack.leadsTo).path() + attack.exchanged)});
                begin();
                const auto result = handler.handle(attack.request(app + attack.asked));
                atEveryCall = nullptr;
                EXPECT_LT(result.bytes, 100'000);
                EXPECT_LE(result.removedCount + result.failedCount, 2);
                removals += result.removedCount > 0 ? 1 : 0;
            });
            EXPECT_GT(moments, 10);
            EXPECT_GT(removals, 0);
            EXPECT_EQ(manifest(disk / outside) + manifest(disk / other), kept);
        }
    }
}

/// A test of cancellation that says yes from the `first` question on.
std::function<bool()> cancelledFrom(int first) {
    return [first, questions = 0]() mutable { return ++questions >= first; };
}

TEST(PrivilegedRequestHandler, leavesWhatIsLeftOnceNobodyWaitsAndCountsItAsFailed) {
    const TemporaryTree disk(inMemory, {});
    constexpr int files = 8000;
    for (int file = 0; file < files; ++file) {
        disk.add({fmt::format("Library/Caches/app/folder/{}", file), bytes(0)});
    }
    for (const auto *name : {"a", "b", "c", "d"}) {
        disk.add({fmt::format("Library/Caches/some/{}", name), bytes(0)});
    }
    // As the helper's connections ask it.
    const auto interface = klarboxHelperInterface(
        std::make_shared<HelperService>(handlerOver(disk), [](const auto &, const auto &) {}));
    const auto answer = [&](std::string_view selector, const char *path, int first) {
        std::string reply;
        const auto keep = [&](std::string_view data) { reply = data; };
        (*interface.find(selector))((disk / path).path(), keep, cancelledFrom(first));
        return PrivilegedRemovalResult::decode(reply);
    };
    const auto left = [&](const char *path) {
        const auto entries = std::filesystem::directory_iterator((disk / path).path());
        return std::distance(begin(entries), end(entries));
    };
    const std::string stopped = "The removal was stopped before it was done.";
    // Before any entry, and between two of them.
    const auto *some = "Library/Caches/some";
    const auto contents = KlarboxHelperXPC::removeContentsSelector;
    EXPECT_EQ(answer(contents, some, 1), (Result{0, 4, 0, std::nullopt, stopped}));
    EXPECT_EQ(answer(contents, some, 3), (Result{2, 2, 0, std::nullopt, stopped}));
    EXPECT_EQ(left(some), 2);
    // While a tree is measured (three questions), and at the first question while it is removed.
    const auto *app = "Library/Caches/app";
    const auto item = KlarboxHelperXPC::removeItemSelector;
    EXPECT_EQ(answer(item, app, 1), Result::failed(stopped));
    EXPECT_EQ(left("Library/Caches/app/folder"), files);
    EXPECT_EQ(answer(item, app, 4), Result::failed(stopped));
    EXPECT_LT(left("Library/Caches/app/folder"), files);
    EXPECT_GT(left("Library/Caches/app/folder"), 0);
    EXPECT_EQ(answer(item, app, INT_MAX).removedCount, 1);
}

TEST(PrivilegedRequestHandler, countsNothingThatSomebodyElseRemovedMeanwhile) {
    const TemporaryTree disk(inMemory, {});
    const auto path = (disk / "Library/Caches/a").path();
    const auto handler = handlerOver(disk);
    bool isTaken = false;
    const auto take = [&] { isTaken = ::unlink(path.c_str()) == 0; };
    atEveryMoment(INT_MAX, take, [&](const auto &begin) {
        disk.add({"Library/Caches/a", bytes(1)});
        isTaken = false;
        begin();
        const auto result = handler.perform(PrivilegedRequest::removeItem(path));
        atEveryCall = nullptr;
        EXPECT_EQ(result.removedCount, isTaken ? 0 : 1);
    });
}

} // namespace
} // namespace klarbox::test
