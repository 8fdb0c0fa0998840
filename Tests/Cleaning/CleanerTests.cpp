#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <variant>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using enum RemovalMode;
using enum SafetyViolation;

const auto busy = PlatformError::posix(EBUSY);
const auto readOnly = PlatformError::posix(EROFS);

/// Keeps what it is asked and touches nothing; throws for entries of the names it is told.
class RecordingRemover final : public ItemRemover {
public:
    explicit RecordingRemover(std::map<std::string, std::exception_ptr> failing = {})
        : failing_(std::move(failing)) {}

    void moveToTrash(const FileURL &url) const override { record("trash", url); }
    void deletePermanently(const FileURL &url) const override { record("delete", url); }

    /// What succeeded, in order: "trash NAME" or "delete NAME".
    const std::vector<std::string> &calls() const { return calls_; }

private:
    void record(std::string_view what, const FileURL &url) const {
        if (const auto failure = failing_.find(std::string(url.lastComponent()));
            failure != failing_.end()) {
            std::rethrow_exception(failure->second);
        }
        calls_.push_back(fmt::format("{} {}", what, url.lastComponent()));
    }

    std::map<std::string, std::exception_ptr> failing_;
    mutable std::vector<std::string> calls_;
};

/// Deletes for real, after doing something else.
class InterruptedRemover final : public ItemRemover {
public:
    explicit InterruptedRemover(std::function<void()> before) : before_(std::move(before)) {}

    void moveToTrash(const FileURL &) const override { throw PlatformError::posix(ENOTSUP); }
    void deletePermanently(const FileURL &url) const override {
        before_();
        SecureDeleter().deletePermanently(url);
    }

private:
    std::function<void()> before_;
};

/// Gives recorded answers, or throws recorded errors, in order.
class RecordedHelper final : public PrivilegedRemoving {
public:
    using Answer = std::variant<PrivilegedRemovalResult, std::exception_ptr>;

    explicit RecordedHelper(std::vector<Answer> answers) : answers_(std::move(answers)) {}

    PrivilegedRemovalResult perform(const PrivilegedRequest &request) const override {
        requests_.push_back(request);
        const auto &answer = answers_.at(requests_.size() - 1);
        if (const auto *error = std::get_if<std::exception_ptr>(&answer)) {
            std::rethrow_exception(*error);
        }
        return std::get<PrivilegedRemovalResult>(answer);
    }
    const std::vector<PrivilegedRequest> &requests() const { return requests_; }

private:
    std::vector<Answer> answers_;
    mutable std::vector<PrivilegedRequest> requests_;
};

template <typename Error>
std::exception_ptr thrown(const Error &error) {
    return std::make_exception_ptr(error);
}

KlarboxItem fileItem(KlarboxTarget target, std::optional<FileURL> root) {
    return {.id = "logs:x",
            .title = "X",
            .target = std::move(target),
            .allowedRoot = std::move(root),
            .size = 777,
            .tier = SafetyTier::safe};
}

KlarboxItem systemItem(KlarboxTarget target, FileURL root) {
    auto item = fileItem(std::move(target), std::move(root));
    item.removalPolicy = RemovalPolicy::permanentOnly;
    item.requiresPrivileges = true;
    return item;
}

const auto ignoreProgress = [](std::int64_t, std::int64_t, const std::string &) {};

/// Collaborators of a cleaner, the ones that a test does not care about left as they are.
struct Collaborators {
    FileURL home = FileURL("/nonexistent");
    std::shared_ptr<const ItemRemover> remover = std::make_shared<SecureDeleter>();
    std::shared_ptr<const CommandRunning> runner = std::make_shared<RecordedRunner>();
    std::shared_ptr<const PrivilegedRemoving> helper = nullptr;
    std::vector<FileURL> excluded = {};

    Cleaner cleaner() const {
        return {std::make_shared<SafetyGuard>(home), remover, runner, helper, excluded};
    }
    CleanOutcome clean(const KlarboxItem &item, RemovalMode mode = deletePermanently) const {
        const auto report = cleaner().clean({&item, 1}, mode, ignoreProgress);
        EXPECT_EQ(report.outcomes.size(), 1U);
        EXPECT_EQ(report.outcomes.at(0).id, item.id);
        EXPECT_EQ(report.outcomes.at(0).title, item.title);
        return report.outcomes.at(0);
    }
};

TEST(Cleaner, reportsProgressBeforeEachItemAndAtTheEnd) {
    std::vector<std::string> calls;
    const auto progress = [&](std::int64_t index, std::int64_t total, const std::string &title) {
        calls.push_back(fmt::format("{}/{} {}", index, total, title));
    };
    std::vector<KlarboxItem> items(3, fileItem(KlarboxTarget::items({}), FileURL("/")));
    items[0].title = "a";
    items[1].title = "b";
    items[2].title = "c";
    const auto cleaner = Collaborators{}.cleaner();
    EXPECT_EQ(cleaner.clean(items, moveToTrash, progress).outcomes.size(), 3U);
    EXPECT_THAT(calls, ElementsAre("0/3 a", "1/3 b", "2/3 c", "3/3 "));

    calls.clear();
    EXPECT_THAT(cleaner.clean({}, moveToTrash, progress).outcomes, IsEmpty());
    EXPECT_THAT(calls, ElementsAre("0/0 "));
}

TEST(Cleaner, finishesTheItemInHandWhenStopped) {
    const TemporaryTree tree{{"root/a", bytes(1)}, {"root/b", bytes(1)}, {"root/c", bytes(1)}};
    std::vector<KlarboxItem> items;
    for (const auto *name : {"root/a", "root/b", "root/c"}) {
        items.push_back(fileItem(KlarboxTarget::item(tree / name), tree / "root"));
        items.back().title = name;
    }
    std::stop_source stop;
    std::vector<std::string> calls;
    const auto report = Collaborators{}.cleaner().clean(
        items, deletePermanently,
        [&](std::int64_t index, std::int64_t total, const std::string &title) {
            calls.push_back(fmt::format("{}/{} {}", index, total, title));
            if (index == 1) {
                stop.request_stop();
            }
        },
        stop.get_token());
    ASSERT_EQ(report.outcomes.size(), 2U);
    EXPECT_EQ(report.outcomes[1].result, CleanResult::removed());
    EXPECT_THAT(calls, ElementsAre("0/3 root/a", "1/3 root/b", "2/3 "));
    EXPECT_FALSE(FileManager::exists(tree / "root/b"));
    EXPECT_TRUE(FileManager::exists(tree / "root/c"));
}

TEST(Cleaner, removesFilesAsTheUserAndTellsWhatCameOfIt) {
    const TemporaryTree tree{
        {"root/a", bytes(5000)},        {"root/b", bytes(9000)},
        {"root/c/x", bytes(5000)},      {"root/full/.hidden", bytes(1)},
        {"root/full/busy", bytes(1)},   {"root/full/y", bytes(5000)},
        {"root/empty", directory()},    {"root/out", link("../outside")},
        {"root/repo/.git/x", bytes(1)}, {"home/.ssh/key", bytes(1)},
        {"home/Documents/x", bytes(1)}, {"home/other", bytes(5000)},
        {"outside/x", bytes(1)},        {"root/vanishing", bytes(1)},
        {"whole/busy", bytes(1)},       {"whole/z", bytes(5000)},
        {"root/readOnly", bytes(1)},
    };
    const auto untouched = manifest(tree.root());
    const auto in = [&](const char *path) { return KlarboxTarget::item(tree / path); };
    const auto all = [&](std::initializer_list<const char *> paths) {
        std::vector<FileURL> urls;
        for (const auto *path : paths) {
            urls.push_back(tree / path);
        }
        return KlarboxTarget::items(urls);
    };
    const auto of = [&](const char *path) { return KlarboxTarget::contents(tree / path); };

    const struct {
        const char *name;
        KlarboxTarget target;
        const char *root;
        CleanResult permanently;
        std::vector<const char *> removed; ///< relative to the tree, in order
    } cases[] = {
        {"a file", in("root/a"), "root", CleanResult::removed(), {"root/a"}},
        {"a folder", in("root/c"), "root", CleanResult::removed(), {"root/c"}},
        {"a link itself", in("root/out"), "root", CleanResult::removed(), {"root/out"}},
        {"no paths", all({}), "root", CleanResult::removed(), {}},
        {"an empty folder's contents", of("root/empty"), "root", CleanResult::removed(), {}},
        {"the contents of the root itself, written differently",
         of("root/../whole"),
         "whole",
         CleanResult::partial("1 of 2 could not be removed (" + busy.message() + ")"),
         {"whole/z"}},
        {"nothing there", in("root/gone"), "root", CleanResult::refused(notFound), {}},
        {"the contents of nothing", of("root/gone"), "root", CleanResult::refused(notFound), {}},
        {"a root that is gone", in("root/a"), "gone", CleanResult::refused(notFound), {}},
        {"outside the root", in("outside/x"), "root", CleanResult::refused(notInsideRoot), {}},
        {"the root", in("root"), "root", CleanResult::refused(isRoot), {}},
        {"through a link", in("root/out/x"), "root", CleanResult::refused(symlinkEscape), {}},
        {"the contents of a link out",
         of("root/out"),
         "root",
         CleanResult::refused(symlinkEscape),
         {}},
        {"the contents of a repository's insides",
         of("root/repo/.git"),
         "root",
         CleanResult::refused(insideGitDirectory),
         {}},
        {"a failing removal",
         in("root/full/busy"),
         "root",
         CleanResult::failed(busy.message()),
         {}},
        {"two failing removals",
         all({"root/readOnly", "root/full/busy"}),
         "root",
         CleanResult::failed(readOnly.message()),
         {}},
        {"a removal that the remover refuses",
         in("root/vanishing"),
         "root",
         CleanResult::refused(notFound),
         {}},
        {"a violation outweighs a message when nothing went",
         all({"root/full/busy", "root/gone"}),
         "root",
         CleanResult::refused(notFound),
         {}},
        {"a message outweighs a violation when something went",
         all({"root/gone", "root/a", "root/full/busy", "root/readOnly"}),
         "root",
         CleanResult::partial("3 of 4 could not be removed (" + busy.message() + ")"),
         {"root/a"}},
        {"two of five protected",
         all({"home/.ssh", "root/a", "home/Documents", "root/b", "home/other"}),
         "",
         CleanResult::partial("2 of 5 could not be removed (refused: protectedLocation)"),
         {"root/a", "root/b", "home/other"}},
        {"the same path twice is two removals",
         all({"root/a", "root/a"}),
         "root",
         CleanResult::removed(),
         {"root/a", "root/a"}},
    };
    for (const auto &[name, target, root, permanently, removed] : cases) {
        for (const bool usesTrash : {false, true}) {
            SCOPED_TRACE(fmt::format("{}, {}", name, usesTrash ? "to the Trash" : "permanently"));
            const auto remover =
                std::make_shared<RecordingRemover>(std::map<std::string, std::exception_ptr>{
                    {"busy", thrown(busy)},
                    {"readOnly", thrown(readOnly)},
                    {"vanishing", thrown(SafetyRefusal(notFound))}});
            std::int64_t bytes = 0;
            std::vector<std::string> calls;
            for (const auto *path : removed) {
                bytes += DiskUsage::allocatedSize(tree / path);
                calls.push_back(fmt::format("{} {}", usesTrash ? "trash" : "delete",
                                            FileURL(path).lastComponent()));
            }
            const auto item = fileItem(target, FileURL((tree / root).path()));
            EXPECT_EQ((Collaborators{.home = tree / "home", .remover = remover}.clean(
                          item, usesTrash ? moveToTrash : deletePermanently)),
                      (CleanOutcome{.id = item.id,
                                    .title = item.title,
                                    .result = usesTrash && permanently == CleanResult::removed()
                                                  ? CleanResult::movedToTrash()
                                                  : permanently,
                                    .bytes = bytes,
                                    .wentToTrash = usesTrash}));
            EXPECT_EQ(remover->calls(), calls);
        }
    }
    EXPECT_EQ(manifest(tree.root()), untouched);
}

TEST(Cleaner, emptiesAFolderEntryByEntryHiddenOnesIncluded) {
    const TemporaryTree tree{{"root/full/.hidden", bytes(1)},
                             {"root/full/.DS_Store", bytes(1)},
                             {"root/full/x", bytes(1)}};
    const auto remover = std::make_shared<RecordingRemover>();
    EXPECT_EQ(Collaborators{.remover = remover}
                  .clean(fileItem(KlarboxTarget::contents(tree / "root/full"), tree / "root"))
                  .result,
              CleanResult::removed());
    EXPECT_THAT(remover->calls(),
                testing::UnorderedElementsAre("delete .hidden", "delete .DS_Store", "delete x"));
}

TEST(Cleaner, reportsAFolderThatCannotBeListed) {
    const TemporaryTree tree{{"root/file", bytes(1)}};
    const auto outcome = Collaborators{}.clean(
        fileItem(KlarboxTarget::contents(tree / "root/file"), tree / "root"), moveToTrash);
    const auto *failed = std::get_if<CleanResult::Failed>(&outcome.result.value());
    ASSERT_NE(failed, nullptr);
    EXPECT_THAT(failed->message, HasSubstr("“file” couldn’t be opened"));
    EXPECT_TRUE(outcome.wentToTrash);
    EXPECT_TRUE(FileManager::exists(tree / "root/file"));
}

TEST(Cleaner, refusesFilesWithoutARootAndLetsThePolicyOutweighTheMode) {
    const TemporaryTree tree{{"root/a", bytes(1)}};
    const auto remover = std::make_shared<RecordingRemover>();
    const Collaborators with{.remover = remover};
    const auto target = KlarboxTarget::item(tree / "root/a");

    for (const bool privileged : {false, true}) {
        auto rootless = fileItem(target, std::nullopt);
        rootless.requiresPrivileges = privileged;
        const auto outcome = with.clean(rootless, moveToTrash);
        EXPECT_EQ(outcome.result, CleanResult::refused(notInsideRoot));
        EXPECT_FALSE(outcome.wentToTrash);
    }
    auto item = fileItem(target, tree / "root");
    item.removalPolicy = RemovalPolicy::permanentOnly;
    for (const auto mode : allCases<RemovalMode>()) {
        const auto outcome = with.clean(item, mode);
        EXPECT_EQ(outcome.result, CleanResult::removed());
        EXPECT_FALSE(outcome.wentToTrash);
    }
    EXPECT_THAT(remover->calls(), ElementsAre("delete a", "delete a"));
}

TEST(Cleaner, sendsSystemItemsToTheHelperAndSumsItsAnswers) {
    const TemporaryTree tree{
        {"root/a", bytes(1)},        {"root/b", bytes(1)},
        {"root/folder/x", bytes(1)}, {"root/out", link("../outside")},
        {"outside/x", bytes(1)},     {"root/.git/x", bytes(1)},
    };
    using Result = PrivilegedRemovalResult;
    const TimeLimitedPrivilegedRemover::TimedOut timedOut(std::chrono::seconds(30));
    const auto removeA = PrivilegedRequest::removeItem((tree / "root/a").path());
    const auto removeB = PrivilegedRequest::removeItem((tree / "root/b").path());
    const auto item = [&](const char *path) { return KlarboxTarget::item(tree / path); };
    const auto both = KlarboxTarget::items({tree / "root/a", tree / "root/b"});
    const struct {
        const char *name;
        KlarboxTarget target;
        std::vector<RecordedHelper::Answer> answers;
        std::vector<PrivilegedRequest> requests;
        CleanResult result;
        std::int64_t bytes = 0;
    } cases[] = {
        {"an item", item("root/./a"), {Result{1, 0, 10}}, {removeA}, CleanResult::removed(), 10},
        {"a folder's contents",
         KlarboxTarget::contents(tree / "root/folder"),
         {Result{0, 0, 0}},
         {PrivilegedRequest::removeContents((tree / "root/folder").path())},
         CleanResult::removed()},
        {"nothing to do", KlarboxTarget::items({}), {}, {}, CleanResult::removed()},
        {"the root itself",
         KlarboxTarget::contents(tree / "root"),
         {},
         {},
         CleanResult::refused(isRoot)},
        {"only refused paths",
         KlarboxTarget::items({tree / "root/out/x", tree / "root/gone"}),
         {},
         {},
         CleanResult::refused(symlinkEscape)},
        {"a refused path among others",
         KlarboxTarget::items({tree / "root/.git/x", tree / "root/b"}),
         {Result{1, 0, 10}},
         {removeB},
         CleanResult::partial("1 of 2 could not be removed (refused: insideGitDirectory)"),
         10},
        {"a refusal by the helper",
         item("root/a"),
         {Result::refused(protectedLocation)},
         {removeA},
         CleanResult::refused(protectedLocation)},
        {"a failure of the helper",
         item("root/a"),
         {Result::failed("x")},
         {removeA},
         CleanResult::failed("x")},
        {"a failure without a reason",
         item("root/a"),
         {Result{0, 1, 0}},
         {removeA},
         CleanResult::failed("Nothing could be removed")},
        {"a partial failure without a reason",
         item("root/a"),
         {Result{3, 1, 70}},
         {removeA},
         CleanResult::partial("1 of 4 could not be removed (unknown error)"),
         70},
        {"the first reasons are kept",
         both,
         {Result{2, 1, 10, isRoot}, Result{0, 2, 0, notFound, "first"}},
         {removeA, removeB},
         CleanResult::partial("3 of 5 could not be removed (first)"),
         10},
        {"a helper that stops answering",
         both,
         {Result{3, 0, 100}, thrown(timedOut)},
         {removeA, removeB},
         CleanResult::partial("1 of 4 could not be removed (The Klarbox helper didn't answer "
                              "within 30 seconds. Turn it off and on again in Settings, then try "
                              "again.)"),
         100},
        {"a helper that comes back",
         both,
         {thrown(busy), Result{1, 0, 10}},
         {removeA, removeB},
         CleanResult::partial("1 of 2 could not be removed (" + busy.message() + ")"),
         10},
        {"a helper that never answers",
         both,
         {thrown(busy), thrown(timedOut)},
         {removeA, removeB},
         CleanResult::failed(busy.message())},
        {"absurd answers",
         both,
         {Result{INT64_MAX, 1, INT64_MAX}, Result{INT64_MAX, INT64_MAX, INT64_MAX}},
         {removeA, removeB},
         CleanResult::partial("9223372036854775807 of 9223372036854775807 could not be removed "
                              "(unknown error)"),
         INT64_MAX},
    };
    for (const auto &[name, target, answers, requests, result, bytes] : cases) {
        SCOPED_TRACE(name);
        const auto helper = std::make_shared<RecordedHelper>(answers);
        const auto outcome = Collaborators{.home = tree / "home", .helper = helper}.clean(
            systemItem(target, tree / "root"), moveToTrash);
        EXPECT_EQ(outcome.result, result);
        EXPECT_EQ(outcome.bytes, bytes);
        EXPECT_FALSE(outcome.wentToTrash);
        EXPECT_EQ(helper->requests(), requests);
    }
}

TEST(Cleaner, saysWhenTheHelperIsNeededButTurnedOff) {
    const TemporaryTree tree{{"root/a", bytes(1)}};
    const auto remover = std::make_shared<RecordingRemover>();
    const auto outcome = Collaborators{.remover = remover}.clean(
        systemItem(KlarboxTarget::item(tree / "root/a"), tree / "root"));
    EXPECT_EQ(
        outcome.result,
        CleanResult::failed("System files need the Klarbox helper. Turn it on, then clean again."));
    EXPECT_THAT(remover->calls(), IsEmpty());
}

TEST(Cleaner, runsCommandsOnceAndReadsWhyTheyFailed) {
    const TemporaryTree cellar{{"wget/1.24.5/bin/wget", bytes(20'000)},
                               {"jq/1.7/bin/jq", bytes(20'000)}};
    const auto wget = cellar / "wget/1.24.5";
    const auto jq = cellar / "jq/1.7";
    const auto kegs = fmt::format("Warning: Could not cleanup old kegs! Fix your permissions on:\n"
                                  "  {}\n  {}\nError: 2 problems\n",
                                  wget.path(), jq.path());
    const auto stuck = DiskUsage::allocatedSize(wget) + DiskUsage::allocatedSize(jq);
    const std::string stuckMessage =
        "Homebrew couldn't remove wget 1.24.5, jq 1.7: you don't have permission to delete some of "
        "its files (often left by running brew with sudo). Fix their ownership, then clean again.";
    const std::string freedOneMegabyte =
        "==> This operation has freed approximately 1MB of disk space.\n";
    const struct {
        CommandResult ran;
        CleanResult result;
        std::int64_t bytes = 0;
    } cases[] = {
        {{0, "whatever"}, CleanResult::ranCommand(), 777},
        {{0, kegs}, CleanResult::ranCommand(), 777},
        {{1, "a\n\nb\nc\nd\n"}, CleanResult::failed("b\nc\nd")},
        {{1, "one\r\ntwo"}, CleanResult::failed("one\ntwo")},
        {{1, "\n\n"}, CleanResult::failed("Command failed")},
        {{CommandResult::timedOut, "Timed out"}, CleanResult::failed("Timed out")},
        {{CommandResult::notStarted, "No such file or directory"},
         CleanResult::failed("No such file or directory")},
        {{1, kegs}, CleanResult::failed(stuckMessage)},
        {{1, freedOneMegabyte + kegs}, CleanResult::partial(stuckMessage), 1048576 - stuck},
        {{1, fmt::format("freed approximately {}B\n{}", stuck, kegs)},
         CleanResult::failed(stuckMessage)},
        {{1, fmt::format("freed approximately {}B\n{}", stuck + 1, kegs)},
         CleanResult::partial(stuckMessage),
         1},
    };
    const CommandAction action{.executable = FileURL("/opt/homebrew/bin/brew"),
                               .arguments = {"cleanup", "--prune=all"}};
    for (const auto &[ran, result, bytes] : cases) {
        SCOPED_TRACE(ran.output);
        const auto runner = std::make_shared<RecordedRunner>(
            std::map<std::string, CommandResult>{{action.displayString(), ran}});
        // Neither a missing root nor the wish for privileges matters to a command.
        auto item = fileItem(KlarboxTarget::command(action), std::nullopt);
        item.requiresPrivileges = true;
        const auto outcome = Collaborators{.runner = runner}.clean(item, moveToTrash);
        EXPECT_EQ(outcome.result, result);
        EXPECT_EQ(outcome.bytes, bytes);
        EXPECT_FALSE(outcome.wentToTrash);
        ASSERT_EQ(runner->calls().size(), 1U);
        EXPECT_EQ(runner->calls()[0].action, action);
        EXPECT_EQ(runner->calls()[0].timeout, std::chrono::seconds(900));
    }
}

TEST(Cleaner, turnsWhateverIsThrownIntoAnOutcome) {
    class ThrowingRunner final : public CommandRunning {
        CommandResult run(const CommandAction &, std::chrono::nanoseconds,
                          std::stop_token) const override {
            throw std::runtime_error("out of processes");
        }
    };
    const auto outcome = Collaborators{.runner = std::make_shared<ThrowingRunner>()}.clean(
        fileItem(KlarboxTarget::command({.executable = FileURL("/brew"), .arguments = {}}), {}));
    EXPECT_EQ(outcome.result, CleanResult::failed("out of processes"));
}

TEST(Cleaner, leavesAloneWhatTheSettingsExclude) {
    const TemporaryTree tree{
        {"root/a/keep/x", bytes(5000)}, {"root/a/y", bytes(5000)},   {"root/b", bytes(5000)},
        {"root/b2", bytes(5000)},       {"volume/c/x", bytes(5000)}, {"linked", link("volume")},
        {"root/L", link("b")},
    };
    const auto message = [&](const char *path) {
        return fmt::format("The settings exclude “{}” or something inside it",
                           (tree / path).path());
    };
    const auto item = [&](const char *path) { return KlarboxTarget::item(tree / path); };
    const struct {
        const char *excluded;
        KlarboxTarget target;
        CleanResult result;
        std::vector<std::string> calls;
    } cases[] = {
        {"root/b", item("root/b"), CleanResult::failed(message("root/b")), {}},
        {"ROOT/B", item("root/b"), CleanResult::failed(message("root/b")), {}},
        {"root/b", item("root/b2"), CleanResult::removed(), {"delete b2"}},
        {"root/a/keep", item("root/a"), CleanResult::failed(message("root/a")), {}},
        {"root/a/missing", item("root/a"), CleanResult::failed(message("root/a")), {}},
        {"root/a", item("root/a/keep"), CleanResult::failed(message("root/a/keep")), {}},
        {"root/a/keep",
         KlarboxTarget::contents(tree / "root/a"),
         CleanResult::partial("1 of 2 could not be removed (" + message("root/a/keep") + ")"),
         {"delete y"}},
        // Two spellings of one place, on either side.
        {"linked/c", item("volume/c"), CleanResult::failed(message("volume/c")), {}},
        {"volume/c", item("linked/c"), CleanResult::failed(message("linked/c")), {}},
        {"linked/c/new", item("volume/c"), CleanResult::failed(message("volume/c")), {}},
        // Whoever excludes a link means what it leads to, and the link.
        {"root/L", item("root/b"), CleanResult::failed(message("root/b")), {}},
        {"root/L", item("root/L"), CleanResult::failed(message("root/L")), {}},
        {"root/b", item("root/L"), CleanResult::removed(), {"delete L"}},
    };
    for (const auto &[excluded, target, result, calls] : cases) {
        SCOPED_TRACE(fmt::format("{} against {}", excluded, target.paths().at(0).path()));
        const auto remover = std::make_shared<RecordingRemover>();
        const Collaborators with{.home = tree / "home",
                                 .remover = remover,
                                 .excluded = {FileURL(tree.root().path() + "/" + excluded)}};
        EXPECT_EQ(with.clean(fileItem(target, tree.root())).result, result);
        EXPECT_EQ(remover->calls(), calls);
    }
    // The helper knows no exclusions, so a folder that holds one is not sent to it at all.
    const auto helper = std::make_shared<RecordedHelper>(std::vector<RecordedHelper::Answer>{});
    const Collaborators with{
        .home = tree / "home", .helper = helper, .excluded = {tree / "root/a/keep"}};
    EXPECT_EQ(with.clean(systemItem(KlarboxTarget::contents(tree / "root/a"), tree.root())).result,
              CleanResult::failed(message("root/a")));
    EXPECT_THAT(helper->requests(), IsEmpty());
}

// What follows removes for real and compares every entry of the world before and after.

TEST(Cleaner, emptiesAFolderWithWhatWasAddedToItSinceTheScan) {
    const TemporaryTree tree{{"root/app/old", bytes(5000)}, {"root/other", bytes(10)}};
    const auto item = fileItem(KlarboxTarget::contents(tree / "root/app"), tree / "root");
    tree.add({"root/app/new/deep/x", bytes(5000)});
    const auto size =
        DiskUsage::allocatedSize(std::vector{tree / "root/app/old", tree / "root/app/new"});
    const auto other = manifest(tree.root()).substr(manifest(tree.root()).find("root/other"));
    const auto outcome = Collaborators{}.clean(item);
    EXPECT_EQ(outcome.result, CleanResult::removed());
    EXPECT_EQ(outcome.bytes, size);
    EXPECT_THAT(manifest(tree / "root/app"), IsEmpty());
    EXPECT_THAT(manifest(tree.root()), HasSubstr(other));
}

TEST(Cleaner, emptiesARootThroughALinkOrInAnyLetterCaseButKeepsTheFolder) {
    const TemporaryTree tree{{"real/a", bytes(1)}, {"link", link("real")}, {"other", bytes(1)}};
    EXPECT_EQ(Collaborators{}
                  .clean(fileItem(KlarboxTarget::contents(tree / "link"), tree / "real"))
                  .result,
              CleanResult::removed());
    EXPECT_THAT(manifest(tree / "real"), IsEmpty());
    EXPECT_EQ(FileManager::type(tree / "link"), FileManager::FileType::symbolicLink);
    EXPECT_TRUE(FileManager::exists(tree / "other"));
}

TEST(Cleaner, touchesNothingOutsideWhenAFolderBecomesALinkAfterItsValidation) {
    for (const bool isParent : {true, false}) {
        const TemporaryTree tree{{"root/app/cache/x", bytes(5000)},
                                 {"outside/cache/x", bytes(5000)},
                                 {"outside/x", bytes(10)}};
        const auto outside = manifest(tree / "outside");
        const auto swap = [&] {
            const auto swapped = isParent ? tree / "root/app" : tree / "root/app/cache";
            std::filesystem::rename(swapped.path(), (tree / "moved").path());
            std::filesystem::create_directory_symlink(
                (isParent ? tree / "outside" : tree / "outside/cache").path(), swapped.path());
        };
        const auto outcome =
            Collaborators{.remover = std::make_shared<InterruptedRemover>(swap)}.clean(
                fileItem(KlarboxTarget::item(tree / "root/app/cache"), tree / "root"));
        // A link in place of the folder itself is all that goes; one above it ends the walk.
        EXPECT_EQ(outcome.result.isFailure(), isParent);
        EXPECT_EQ(outcome.bytes == 0, isParent);
        EXPECT_EQ(manifest(tree / "outside"), outside);
        EXPECT_TRUE(FileManager::exists(tree / (isParent ? "moved/cache/x" : "moved/x")));
    }
}

TEST(Cleaner, removesSystemItemsThroughTheHandlerItself) {
    const TemporaryTree disk{{"Library/Caches/app/x", bytes(5000)},
                             {"Library/Caches/app/.git/config", bytes(10)},
                             {"Library/Caches/other", bytes(10)}};
    const auto root = disk / "Library/Caches";
    const auto size = DiskUsage::allocatedSize(disk / "Library/Caches/app/x");
    const Collaborators with{.helper = std::make_shared<PrivilegedRequestHandler>(
                                 std::vector{root}, std::make_shared<SafetyGuard>(disk / "home"),
                                 std::make_shared<SecureDeleter>())};
    const auto outcome =
        with.clean(systemItem(KlarboxTarget::contents(disk / "Library/Caches/app"), root));
    EXPECT_EQ(outcome.result, CleanResult::partial("1 of 2 could not be removed (refused: "
                                                   "insideGitDirectory)"));
    EXPECT_EQ(outcome.bytes, size);
    EXPECT_TRUE(FileManager::exists(disk / "Library/Caches/app/.git/config"));
    EXPECT_TRUE(FileManager::exists(disk / "Library/Caches/other"));
}

} // namespace
} // namespace klarbox::test
