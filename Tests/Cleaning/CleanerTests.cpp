#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Helper/PrivilegedRequest.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "Tests/Support/FileSystemCalls.hpp"
#include "Tests/Support/MemoryEnds.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <variant>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using enum RemovalMode;
using enum SafetyViolation;

/// Keeps what it is asked and touches nothing. Entries named "busy" and "readOnly" fail with their
/// name as the message; one named "vanishing" is refused.
class RecordingRemover : public ItemRemover {
public:
    void moveToTrash(const FileURL &url) const override { record("trash", url); }
    void deletePermanently(const FileURL &url) const override { record("delete", url); }

    /// What succeeded since the last question, in order: "trash NAME " or "delete NAME ".
    std::string takeCalls() const { return std::exchange(calls_, ""); }

private:
    void record(std::string_view what, const FileURL &url) const {
        const std::string name(url.lastComponent());
        if (name == "busy" || name == "readOnly") {
            throw std::runtime_error(name);
        }
        if (name == "vanishing") {
            throw SafetyRefusal(notFound);
        }
        calls_ += fmt::format("{} {} ", what, name);
    }

    mutable std::string calls_;
};

/// Gives recorded answers in order; a text is thrown.
class RecordedHelper final : public PrivilegedRemoving {
public:
    using Answers = std::vector<std::variant<PrivilegedRemovalResult, const char *>>;

    RecordedHelper(FileURL folder, Answers answers)
        : folder_(std::move(folder)),
          answers_(std::move(answers)) {}

    PrivilegedRemovalResult perform(const PrivilegedRequest &request) const override {
        if (std::holds_alternative<PrivilegedRequest::RemoveContents>(request.value())) {
            requests_ += "in ";
        }
        const auto path = std::visit([](const auto &each) { return each.path; }, request.value());
        requests_ += path.substr(folder_.path().size() + 1) + " ";
        const auto &answer = answers_.at(count_++);
        if (const auto *message = std::get_if<const char *>(&answer)) {
            throw std::runtime_error(*message);
        }
        return std::get<PrivilegedRemovalResult>(answer);
    }
    /// What was asked, in order: "PATH " to remove, "in PATH " to empty, below the folder.
    const std::string &requests() const { return requests_; }

private:
    FileURL folder_;
    Answers answers_;
    mutable std::size_t count_ = 0;
    mutable std::string requests_;
};

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

/// A file target in words: "item PATH", "contents PATH" or "items PATH…", the paths below `folder`.
KlarboxTarget target(const FileURL &folder, const std::string &text) {
    std::istringstream words(text);
    std::string kind;
    std::vector<FileURL> urls;
    words >> kind;
    for (std::string path; words >> path;) {
        urls.emplace_back(folder.path() + "/" + path);
    }
    return kind == "items"      ? KlarboxTarget::items(urls)
           : kind == "contents" ? KlarboxTarget::contents(urls.at(0))
                                : KlarboxTarget::item(urls.at(0));
}

/// What came of an item, in words: its result, the bytes if there are any, and where they went.
std::string text(const CleanOutcome &outcome) {
    const auto result = std::visit(
        overloaded{
            [](const CleanResult::Partial &partial) { return "partial: " + partial.message; },
            [](const CleanResult::Failed &failed) { return "failed: " + failed.message; },
            [](const CleanResult::Refused &refused) {
                return fmt::format("refused: {}", rawValue(refused.violation));
            },
            [](const CleanResult::Removed &) { return std::string("removed"); },
            [](const CleanResult::MovedToTrash &) { return std::string("moved"); },
            [](const CleanResult::RanCommand &) { return std::string("ran"); },
        },
        outcome.result.value());
    return result + (outcome.bytes == 0 ? "" : fmt::format(" [{}]", outcome.bytes)) +
           (outcome.wentToTrash ? " (Trash)" : "");
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
        std::vector<std::string> entries;
        std::ranges::transform(excluded, std::back_inserter(entries), &FileURL::path);
        return {std::make_shared<SafetyGuard>(home), remover, runner, helper,
                Exclusions(home, entries)};
    }
    std::string clean(const KlarboxItem &item, RemovalMode mode = deletePermanently) const {
        const auto outcomes = cleaner().clean({&item, 1}, mode, ignoreProgress).outcomes;
        EXPECT_EQ(outcomes.size(), 1U);
        EXPECT_EQ(outcomes.at(0).id, item.id);
        EXPECT_EQ(outcomes.at(0).title, item.title);
        return text(outcomes.at(0));
    }
};

TEST(Cleaner, reportsProgressAndFinishesTheItemInHandWhenStopped) {
    const TemporaryTree tree{{"root/a", bytes(1)}, {"root/b", bytes(1)}, {"root/c", bytes(1)}};
    std::vector<KlarboxItem> items;
    for (const auto *name : {"a", "b", "c"}) {
        items.push_back(
            fileItem(KlarboxTarget::item(tree / fmt::format("root/{}", name)), tree / "root"));
        items.back().title = name;
    }
    const auto remover = std::make_shared<RecordingRemover>();
    const auto cleaner = Collaborators{.remover = remover}.cleaner();
    std::stop_source stop;
    std::string calls;
    const auto progress = [&](std::int64_t index, std::int64_t total, const std::string &title) {
        calls += fmt::format("{}/{} {};", index, total, title);
        if (title == "b") {
            stop.request_stop();
        }
    };
    EXPECT_EQ(cleaner.clean(items, moveToTrash, progress).outcomes.size(), 3U);
    EXPECT_EQ(std::exchange(calls, ""), "0/3 a;1/3 b;2/3 c;3/3 ;");
    EXPECT_EQ(remover->takeCalls(), "trash a trash b trash c ");
    EXPECT_THAT(cleaner.clean({}, moveToTrash, progress).outcomes, IsEmpty());
    EXPECT_EQ(std::exchange(calls, ""), "0/0 ;");
    stop = {};
    EXPECT_EQ(cleaner.clean(items, moveToTrash, progress, stop.get_token()).outcomes.size(), 2U);
    EXPECT_EQ(calls, "0/3 a;1/3 b;2/3 ;");
    EXPECT_EQ(remover->takeCalls(), "trash a trash b ");
}

TEST(Cleaner, removesFilesAsTheUserAndTellsWhatCameOfIt) {
    const TemporaryTree tree{
        {"root/a", bytes(5000)},        {"root/b", bytes(9000)},
        {"root/c/x", bytes(5000)},      {"root/full/busy", bytes(1)},
        {"root/empty", directory()},    {"root/out", link("../outside")},
        {"root/repo/.git/x", bytes(1)}, {"home/.ssh/key", bytes(1)},
        {"home/Documents/x", bytes(1)}, {"home/other", bytes(5000)},
        {"outside/x", bytes(1)},        {"root/vanishing", bytes(1)},
        {"whole/busy", bytes(1)},       {"whole/z", bytes(5000)},
        {"root/readOnly", bytes(1)},    {"root/documents", link("../home/Documents")},
    };
    const struct {
        std::string target;
        const char *root;
        std::string result;
        std::string removed = ""; ///< relative to the tree, in order
    } cases[] = {
        {"item root/a", "root", "removed", "root/a"},
        {"item root/c", "root", "removed", "root/c"},
        {"item root/out", "root", "removed", "root/out"}, // the link itself
        {"items", "root", "removed"},
        {"items root/a root/a", "root", "removed", "root/a root/a"},
        {"contents root/empty", "root", "removed"},
        // A root may be emptied, however it is written.
        {"contents root/../whole", "whole", "partial: 1 of 2 could not be removed (busy)",
         "whole/z"},
        {"contents root/documents", "root/documents", "refused: protectedLocation"},
        {"item root/gone", "root", "refused: notFound"},
        {"contents root/gone", "root", "refused: notFound"},
        {"item root/a", "gone", "refused: notFound"},
        {"item outside/x", "root", "refused: notInsideRoot"},
        {"item root", "root", "refused: isRoot"},
        {"item root/out/x", "root", "refused: symlinkEscape"},
        {"contents root/out", "root", "refused: symlinkEscape"},
        {"contents root/repo/.git", "root", "refused: insideGitDirectory"},
        {"item root/vanishing", "root", "refused: notFound"},
        {"item root/full/busy", "root", "failed: busy"},
        {"contents root/a", "root", "failed: The folder “a” couldn’t be opened. Not a directory."},
        {"items root/readOnly root/full/busy", "root", "failed: readOnly"},
        // A violation outweighs a message when nothing went, and the other way round.
        {"items root/full/busy root/gone", "root", "refused: notFound"},
        {"items root/gone root/a root/full/busy root/readOnly", "root",
         "partial: 3 of 4 could not be removed (busy)", "root/a"},
        {"items home/.ssh root/a home/Documents root/b home/other", "",
         "partial: 2 of 5 could not be removed (refused: protectedLocation)",
         "root/a root/b home/other"},
    };
    const auto untouched = manifest(tree.root());
    const auto remover = std::make_shared<RecordingRemover>();
    const Collaborators with{.home = tree / "home", .remover = remover};
    for (const auto &[targetText, root, result, removed] : cases) {
        for (const bool usesTrash : {false, true}) {
            SCOPED_TRACE(targetText);
            std::int64_t bytes = 0;
            std::string calls;
            for (const auto &url : target(tree.root(), "items " + removed).paths()) {
                bytes += DiskUsage::allocatedSize(url);
                calls += fmt::format("{} {} ", usesTrash ? "trash" : "delete", url.lastComponent());
            }
            const auto expected = (usesTrash && result == "removed" ? "moved" : result) +
                                  (bytes == 0 ? "" : fmt::format(" [{}]", bytes)) +
                                  (usesTrash ? " (Trash)" : "");
            const FileURL allowed(tree.root().path() + "/" + root);
            EXPECT_EQ(with.clean(fileItem(target(tree.root(), targetText), allowed),
                                 usesTrash ? moveToTrash : deletePermanently),
                      expected);
            EXPECT_EQ(remover->takeCalls(), calls);
        }
    }
    EXPECT_EQ(manifest(tree.root()), untouched);
}

TEST(Cleaner, refusesFilesWithoutARootAndLetsThePolicyOutweighTheMode) {
    const TemporaryTree tree{{"root/a", bytes(1)}};
    const auto remover = std::make_shared<RecordingRemover>();
    const Collaborators with{.remover = remover};
    const auto a = KlarboxTarget::item(tree / "root/a");
    auto item = fileItem(a, std::nullopt);
    EXPECT_EQ(with.clean(item, moveToTrash), "refused: notInsideRoot");
    item.requiresPrivileges = true;
    EXPECT_EQ(with.clean(item, moveToTrash), "refused: notInsideRoot");
    EXPECT_EQ(with.clean(systemItem(a, tree / "root")),
              "failed: System files need the Klarbox helper. Turn it on, then clean again.");
    EXPECT_EQ(remover->takeCalls(), "");

    item = fileItem(a, tree / "root");
    item.removalPolicy = RemovalPolicy::permanentOnly;
    const auto size = DiskUsage::allocatedSize(tree / "root/a");
    EXPECT_EQ(with.clean(item, moveToTrash), fmt::format("removed [{}]", size));
    EXPECT_EQ(with.clean(item, deletePermanently), fmt::format("removed [{}]", size));
    EXPECT_EQ(remover->takeCalls(), "delete a delete a ");
}

TEST(Cleaner, sendsSystemItemsToTheHelperAndSumsItsAnswers) {
    const TemporaryTree tree{
        {"root/a", bytes(1)},        {"root/b", bytes(1)},
        {"root/folder/x", bytes(1)}, {"root/out", link("../outside")},
        {"outside/x", bytes(1)},     {"root/.git/x", bytes(1)},
    };
    using Result = PrivilegedRemovalResult;
    const std::string phrase = " could not be removed";
    const auto refused = [](SafetyViolation violation) { return Result::refused(violation); };
    const struct {
        std::string target;
        RecordedHelper::Answers answers;
        std::string result; ///< `phrase` left out
    } cases[] = {
        {"item ./a", {Result{1, 0, 10}}, "a -> removed [10]"},
        {"contents folder", {Result{0, 0, 0}}, "in folder -> removed"},
        {"items", {}, "-> removed"},
        {"contents ../root", {}, "-> refused: isRoot"},
        {"items out/x gone", {}, "-> refused: symlinkEscape"},
        {"items .git/x b",
         {Result{1, 0, 10}},
         "b -> partial: 1 of 2 (refused: insideGitDirectory) [10]"},
        {"item a", {refused(protectedLocation)}, "a -> refused: protectedLocation"},
        {"item a", {Result::failed("x")}, "a -> failed: x"},
        {"item a", {Result{0, 1, 50}}, "a -> failed: Nothing could be removed"},
        {"item a", {Result{3, 1, 70}}, "a -> partial: 1 of 4 (unknown error) [70]"},
        // The first reasons are kept.
        {"items a b",
         {Result{2, 1, 10, isRoot}, Result{0, 2, 0, notFound, "first"}},
         "a b -> partial: 3 of 5 (first) [10]"},
        {"items a b", {refused(isRoot), refused(notFound)}, "a b -> refused: isRoot"},
        // A helper that stops answering, one that comes back, and one that never answers.
        {"items a b", {Result{3, 0, 100}, "late"}, "a b -> partial: 1 of 4 (late) [100]"},
        {"items a b", {"busy", Result{1, 0, 10}}, "a b -> partial: 1 of 2 (busy) [10]"},
        {"items a b", {"busy", "late"}, "a b -> failed: busy"},
        // Absurd answers.
        {"items a b",
         {Result{INT64_MAX, 1, INT64_MAX}, Result{INT64_MAX, INT64_MAX, INT64_MAX}},
         fmt::format("a b -> partial: {0} of {0} (unknown error) [{0}]", INT64_MAX)},
    };
    for (const auto &[targetText, answers, result] : cases) {
        SCOPED_TRACE(targetText);
        const auto helper = std::make_shared<RecordedHelper>(tree / "root", answers);
        const Collaborators with{.home = tree / "home", .helper = helper};
        auto outcome =
            with.clean(systemItem(target(tree / "root", targetText), tree / "root"), moveToTrash);
        if (const auto at = outcome.find(phrase); at != std::string::npos) {
            outcome.erase(at, phrase.size());
        }
        EXPECT_EQ(helper->requests() + "-> " + outcome, result);
    }
}

TEST(Cleaner, runsCommandsOnceAndReadsWhyTheyFailed) {
    const TemporaryTree cellar{{"wget/1.24.5/wget", bytes(20'000)}, {"jq/1.7/jq", bytes(20'000)}};
    const std::vector kegs{cellar / "wget/1.24.5", cellar / "jq/1.7"};
    const auto stuck = fmt::format("Warning: Could not cleanup old kegs! Fix your permissions on:\n"
                                   "  {}\n  {}\nError: 2 problems\n",
                                   kegs[0].path(), kegs[1].path());
    const auto size = DiskUsage::allocatedSize(kegs);
    const std::string message =
        ": Homebrew couldn't remove wget 1.24.5, jq 1.7: you don't have permission to delete some "
        "of its files (often left by running brew with sudo). Fix their ownership, then clean "
        "again.";
    const auto freeing = [&](std::int64_t bytes) {
        return fmt::format("freed approximately {}B\n{}", bytes, stuck);
    };
    const std::pair<CommandResult, std::string> cases[] = {
        {{0, "whatever"}, "ran [777]"},
        {{0, stuck}, "ran [777]"},
        {{1, "a\n\nb\nc\nd\n"}, "failed: b\nc\nd"},
        {{1, "one\r\ntwo"}, "failed: one\ntwo"},
        {{1, "\n\n"}, "failed: Command failed"},
        {{CommandResult::timedOut, "Timed out"}, "failed: Timed out"},
        {{1, stuck}, "failed" + message},
        {{1, freeing(size)}, "failed" + message},
        {{1, freeing(size + 1)}, "partial" + message + " [1]"},
    };
    const CommandAction action{.executable = FileURL("/opt/homebrew/bin/brew"),
                               .arguments = {"cleanup", "--prune=all"}};
    // Neither a missing root nor the wish for privileges matters to a command.
    auto item = fileItem(KlarboxTarget::command(action), std::nullopt);
    item.requiresPrivileges = true;
    for (const auto &[ran, result] : cases) {
        SCOPED_TRACE(ran.output);
        const auto runner = std::make_shared<RecordedRunner>(
            std::map<std::string, CommandResult>{{action.displayString(), ran}});
        EXPECT_EQ(Collaborators{.runner = runner}.clean(item, moveToTrash), result);
        ASSERT_EQ(runner->calls().size(), 1U);
        EXPECT_EQ(runner->calls()[0].action, action);
        EXPECT_EQ(runner->calls()[0].timeout, std::chrono::seconds(900));
    }
}

TEST(Cleaner, tellsWhatIsGoneWhereverMemoryEnds) {
    bool isOut = true;
    for (int allocations = 0; isOut; ++allocations) {
        const TemporaryTree tree{{"root/a", bytes(1)}, {"root/b", bytes(1)}, {"root/c", bytes(1)}};
        const auto each = DiskUsage::allocatedSize(tree / "root/a");
        const auto item = fileItem(target(tree.root(), "contents root"), tree / "root");
        const auto cleaner = Collaborators{}.cleaner();
        CleanReport report{{{.id = "", .title = "", .result = CleanResult::failed("")}}};
        allocationsLeft = allocations;
        try {
            report = cleaner.clean({&item, 1}, deletePermanently, ignoreProgress);
        } catch (const std::bad_alloc &) { // there is no report, and nothing may be gone
        }
        isOut = std::exchange(allocationsLeft, -1) == 0;
        const auto gone = 3 - std::ssize(FileManager::contentsOfDirectory(tree / "root"));
        const auto &outcome = report.outcomes.at(0);
        SCOPED_TRACE(fmt::format("{}: {} gone, {}", allocations, gone, text(outcome)));
        EXPECT_EQ(outcome.bytes, gone * each);
        EXPECT_EQ(std::holds_alternative<CleanResult::Removed>(outcome.result.value()), gone == 3);
        EXPECT_EQ(std::holds_alternative<CleanResult::Partial>(outcome.result.value()),
                  gone == 1 || gone == 2);
    }
}

TEST(Cleaner, leavesAloneWhatTheSettingsExclude) {
    const TemporaryTree tree{
        {"root/a/keep/x", bytes(5000)}, {"root/a/y", bytes(5000)},   {"root/b", bytes(5000)},
        {"root/b2", bytes(5000)},       {"volume/c/x", bytes(5000)}, {"linked", link("volume")},
        {"root/L", link("b")},          {"volume/M", link("c")},     {"elsewhere/c", bytes(1)},
    };
    const struct {
        const char *excluded;
        std::string target;
        std::string kept; ///< what the message names
        std::string calls = "";
    } cases[] = {
        {"root/b", "item root/b", "root/b"},
        {"ROOT/B", "item root/b", "root/b"},
        {"root/b", "item root/b2", "", "delete b2 "},
        {"root/a/keep", "item root/a", "root/a"},
        {"root/a/missing", "item root/a", "root/a"},
        {"root/a", "item root/a/keep", "root/a/keep"},
        {"root/a/keep", "contents root/a", "root/a/keep", "delete y "},
        // Two spellings of one place, on either side.
        {"linked/c", "item volume/c", "volume/c"},
        {"volume/c", "item linked/c", "linked/c"},
        {"linked/c/new", "item volume/c", "volume/c"},
        {"linked/new", "item volume/c", "", "delete c "},
        // Whoever excludes a link means what it leads to, and the link.
        {"root/L", "item root/b", "root/b"},
        {"root/L", "item root/L", "root/L"},
        {"linked/M", "item volume/M", "volume/M"},
        {"root/b", "item root/L", "", "delete L "},
    };
    const auto message = [&](const std::string &path) {
        return fmt::format("The settings exclude “{}” or something inside it.",
                           (tree / path).path());
    };
    const auto remover = std::make_shared<RecordingRemover>();
    for (const auto &[excluded, targetText, kept, calls] : cases) {
        SCOPED_TRACE(fmt::format("{} against {}", excluded, targetText));
        const Collaborators with{.home = tree / "home",
                                 .remover = remover,
                                 .excluded = {FileURL(tree.root().path() + "/" + excluded)}};
        EXPECT_THAT(with.clean(fileItem(target(tree.root(), targetText), tree.root())),
                    testing::StartsWith(kept.empty()    ? "removed"
                                        : calls.empty() ? "failed: " + message(kept)
                                                        : "partial: 1 of 2 could not be removed (" +
                                                              message(kept) + ")"));
        EXPECT_EQ(remover->takeCalls(), calls);
    }
    // A link that leads elsewhere by now is still what was excluded.
    const auto item = fileItem(target(tree.root(), "item linked/c"), tree.root());
    const Collaborators linking{.remover = remover, .excluded = {tree / "linked/c"}};
    const auto cleaner = linking.cleaner();
    std::filesystem::remove((tree / "linked").path());
    tree.add({"linked", link("elsewhere")});
    EXPECT_EQ(text(cleaner.clean({&item, 1}, deletePermanently, ignoreProgress).outcomes.at(0)),
              "failed: " + message("linked/c"));
    // The helper knows no exclusions, so a folder that holds one is not sent to it at all.
    const auto helper = std::make_shared<RecordedHelper>(tree.root(), RecordedHelper::Answers{});
    const Collaborators with{
        .home = tree / "home", .helper = helper, .excluded = {tree / "root/a/keep"}};
    EXPECT_EQ(with.clean(systemItem(KlarboxTarget::contents(tree / "root/a"), tree.root())),
              "failed: " + message("root/a"));
    EXPECT_THAT(helper->requests(), IsEmpty());
}

// What follows removes for real and compares every entry of the world before and after.

TEST(Cleaner, emptiesARootThroughALinkOfWhatCameSinceTheScanToo) {
    const TemporaryTree tree{
        {"real/.DS_Store", bytes(5000)}, {"link", link("real")}, {"other", bytes(10)}};
    const auto item = fileItem(KlarboxTarget::contents(tree / "link"), tree / "real");
    tree.add({"real/.new/deep/x", bytes(5000)});
    const auto size =
        DiskUsage::allocatedSize(std::vector{tree / "real/.DS_Store", tree / "real/.new"});
    EXPECT_EQ(Collaborators{}.clean(item), fmt::format("removed [{}]", size));
    EXPECT_THAT(manifest(tree / "real"), IsEmpty());
    EXPECT_EQ(FileManager::type(tree / "link"), FileManager::FileType::symbolicLink);
    EXPECT_TRUE(FileManager::exists(tree / "other"));
}

TEST(Cleaner, tellsAndTouchesNothingBeyondAFolderExchangedAtAnyMoment) {
    const TemporaryTree outside(inMemory, {});
    for (const auto *name : {"a", "deeper/a", "b", "c"}) {
        outside.add({name, bytes(1'000'000)});
    }
    const auto kept = manifest(outside.root());
    const struct {
        const char *target;
        const char *root;
        RemovalMode mode;
    } attacks[] = {
        {"contents root/app", "root", deletePermanently},
        {"contents root/alias", "root", deletePermanently},
        {"contents root/app", "root", moveToTrash},
        {"item root/app/a", "root", deletePermanently},
        {"item root/app/deeper", "root", deletePermanently},
        {"items root/app/a root/alias/deeper", "root", moveToTrash},
    };
    for (const auto &attack : attacks) {
        for (const int lasting : {1, 4, INT_MAX}) {
            SCOPED_TRACE(fmt::format("{} within {}, exchanged for {} moments", attack.target,
                                     attack.root, lasting));
            std::string app;
            int removals = 0;
            const auto exchange = [&] {
                ::renameat2(AT_FDCWD, app.c_str(), AT_FDCWD, (app + "-link").c_str(),
                            RENAME_EXCHANGE);
            };
            const int moments = atEveryMoment(lasting, exchange, [&](const auto &begin) {
                const TemporaryTree tree(inMemory,
                                         {
                                             {"root/app/a", bytes(5000)},
                                             {"root/app/deeper/a", bytes(5000)},
                                             {"root/alias", link("app")},
                                             {"root/app-link", link(outside.root().path())},
                                             {"home", directory()},
                                         });
                app = (tree / "root/app").path();
                const Collaborators with{.home = tree / "home",
                                         .remover =
                                             std::make_shared<FileSystemRemover>(tree / "home")};
                const auto cleaner = with.cleaner();
                const auto item = fileItem(target(tree.root(), attack.target), tree / attack.root);
                begin();
                const auto report = cleaner.clean({&item, 1}, attack.mode, ignoreProgress);
                atEveryCall = nullptr;
                EXPECT_LT(report.outcomes.at(0).bytes, 100'000);
                EXPECT_THAT(text(report.outcomes.at(0)), Not(ContainsRegex(" of [^12] could")));
                removals += report.outcomes.at(0).bytes > 0 ? 1 : 0;
            });
            EXPECT_GT(moments, 6);
            EXPECT_GT(removals, 0);
            EXPECT_EQ(manifest(outside.root()), kept);
        }
    }
}

} // namespace
} // namespace klarbox::test
