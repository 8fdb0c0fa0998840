#include "KlarboxKit/Cleaning/Cleaner.hpp"

#include "KlarboxKit/Commands/HomebrewOutput.hpp"
#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Helper/PrivilegedRequest.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"

#include <algorithm>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// What is told when memory runs out; so short that the text needs none of its own.
constexpr const char *outOfMemory = "Out of memory";

std::string message(std::string_view text) noexcept {
    try {
        return std::string(text);
    } catch (const std::bad_alloc &) {
        return outOfMemory;
    }
}

/// Whether a real path is where the root lies, letter case apart.
bool isPlaceOf(const FileURL &root, std::string_view realPath) {
    const auto resolved = SafetyGuard::resolved(root);
    return resolved && resolved->components == Text::foldedPathComponents(realPath);
}

/// The last three lines of what a tool printed: where tools say why they failed.
std::string lastLines(std::string_view output) {
    const auto lines = Text::lines(output);
    if (lines.empty()) {
        return "Command failed";
    }
    const auto count = std::min<std::size_t>(lines.size(), 3);
    return fmt::format(
        "{}", fmt::join(lines.end() - static_cast<std::ptrdiff_t>(count), lines.end(), "\n"));
}

[[noreturn]] void throwExcluded(const FileURL &written) {
    throw std::runtime_error(fmt::format("The settings exclude “{}” or something inside it.",
                                         Text::visible(written.path())));
}

} // namespace

/// What became of an item; moved, it needs no memory.
struct Cleaner::Fate {
    CleanResult result;
    std::int64_t bytes = 0;
    bool wentToTrash = false;
};

/// What became of the parts of one item.
class Cleaner::Tally {
public:
    void addRemoved(std::int64_t count, std::int64_t bytes) {
        removed_ = saturatingAdd(removed_, count);
        bytes_ = saturatingAdd(bytes_, bytes);
    }
    void addFailed(std::int64_t count) { failed_ = saturatingAdd(failed_, count); }
    /// Of several violations, and of several messages, the first is kept.
    void keep(SafetyViolation violation) { violation_ = violation_.value_or(violation); }
    void keep(std::string_view text) {
        if (!message_) {
            message_ = message(text);
        }
    }

    /// Counts one part as failed when `attempt` throws, and keeps why.
    template <typename Attempt>
    void attempt(const Attempt &attempt) {
        try {
            attempt();
        } catch (const SafetyRefusal &refusal) {
            addFailed(1);
            keep(refusal.violation());
        } catch (const std::bad_alloc &) {
            addFailed(1);
            keep(outOfMemory);
        } catch (const std::exception &error) {
            addFailed(1);
            keep(error.what());
        }
    }

    /// What the item came to; `success` is its result when nothing failed.
    Fate fate(CleanResult success, bool wentToTrash) noexcept {
        return {.result = result(std::move(success)),
                .bytes = failed_ > 0 && removed_ == 0 ? 0 : bytes_,
                .wentToTrash = wentToTrash};
    }

private:
    CleanResult result(CleanResult success) noexcept {
        if (failed_ == 0) {
            return success;
        }
        if (removed_ > 0) {
            return CleanResult::partial(partialMessage());
        }
        if (violation_) {
            return CleanResult::refused(*violation_);
        }
        return CleanResult::failed(message_ ? std::move(*message_)
                                            : message("Nothing could be removed"));
    }

    std::string partialMessage() const noexcept {
        try {
            return fmt::format("{} of {} could not be removed ({})", failed_,
                               saturatingAdd(removed_, failed_), reason());
        } catch (const std::bad_alloc &) {
            return outOfMemory;
        }
    }

    std::string reason() const {
        if (message_) {
            return *message_;
        }
        return violation_ ? fmt::format("refused: {}", rawValue(*violation_)) : "unknown error";
    }

    std::int64_t removed_ = 0;
    std::int64_t failed_ = 0;
    std::int64_t bytes_ = 0;
    std::optional<SafetyViolation> violation_;
    std::optional<std::string> message_;
};

Cleaner::Cleaner(std::shared_ptr<const SafetyGuard> guard,
                 std::shared_ptr<const ItemRemover> remover,
                 std::shared_ptr<const CommandRunning> runner,
                 std::shared_ptr<const PrivilegedRemoving> privileged, Exclusions excluded)
    : safety_(std::move(guard)),
      remover_(std::move(remover)),
      runner_(std::move(runner)),
      privileged_(std::move(privileged)),
      excluded_(std::move(excluded)) {}

CleanReport Cleaner::clean(std::span<const KlarboxItem> items, RemovalMode mode,
                           const Progress &progress, std::stop_token stop) const {
    const auto total = static_cast<std::int64_t>(items.size());
    // The room for what is to be told is taken before anything is touched.
    CleanReport report;
    report.outcomes.reserve(items.size());
    for (const auto &item : items) {
        report.outcomes.push_back(
            {.id = item.id, .title = item.title, .result = CleanResult::removed()});
    }
    auto outcome = report.outcomes.begin();
    const auto done = [&] { return outcome - report.outcomes.begin(); };
    for (const auto &item : items) {
        if (stop.stop_requested()) {
            break;
        }
        progress(done(), total, item.title);
        auto fate = clean(item, mode);
        outcome->result = std::move(fate.result);
        outcome->bytes = fate.bytes;
        outcome->wentToTrash = fate.wentToTrash;
        ++outcome;
    }
    progress(done(), total, "");
    report.outcomes.erase(outcome, report.outcomes.end());
    return report;
}

Cleaner::Fate Cleaner::clean(const KlarboxItem &item, RemovalMode mode) const noexcept {
    try {
        if (const auto *command = std::get_if<KlarboxTarget::Command>(&item.target.value())) {
            return runCommand(item, command->action);
        }
        if (!item.allowedRoot) {
            return {.result = CleanResult::refused(SafetyViolation::notInsideRoot)};
        }
        if (item.requiresPrivileges) {
            return cleanWithHelper(item, *item.allowedRoot);
        }
        return cleanAsUser(item, *item.allowedRoot,
                           mode == RemovalMode::moveToTrash &&
                               item.removalPolicy == RemovalPolicy::userChoice);
    } catch (const std::bad_alloc &) {
        return {.result = CleanResult::failed(outOfMemory)};
    } catch (const std::exception &error) {
        // One item's trouble must not cost the report of what was done with the others.
        return {.result = CleanResult::failed(message(error.what()))};
    }
}

Cleaner::Fate Cleaner::cleanAsUser(const KlarboxItem &item, const FileURL &root,
                                   bool usesTrash) const {
    Tally tally;
    tally.attempt([&] {
        if (const auto *contents = std::get_if<KlarboxTarget::Contents>(&item.target.value())) {
            removeContents(contents->of, root, usesTrash, tally);
            return;
        }
        for (const auto &url : item.target.paths()) {
            tally.attempt([&] {
                const auto entry = safety_->pin(url, root);
                expectNotExcluded(url, entry.location());
                remove(entry, usesTrash, tally);
            });
        }
    });
    return tally.fate(usesTrash ? CleanResult::movedToTrash() : CleanResult::removed(), usesTrash);
}

Cleaner::Fate Cleaner::cleanWithHelper(const KlarboxItem &item, const FileURL &root) const {
    if (!privileged_) {
        return {.result = CleanResult::failed(
                    "System files need the Klarbox helper. Turn it on, then clean again.")};
    }
    Tally tally;
    std::vector<PrivilegedRequest> requests;
    const auto requestRemoval = [&](const FileURL &url) {
        tally.attempt(
            [&] { requests.push_back(PrivilegedRequest::removeItem(validate(url, root).path())); });
    };
    std::visit(overloaded{
                   [&](const KlarboxTarget::Item &target) { requestRemoval(target.url); },
                   [&](const KlarboxTarget::Contents &target) {
                       tally.attempt([&] {
                           requests.push_back(
                               PrivilegedRequest::removeContents(validate(target.of, root).path()));
                       });
                   },
                   [&](const KlarboxTarget::Items &target) {
                       std::ranges::for_each(target.urls, requestRemoval);
                   },
                   [&](const KlarboxTarget::Command &) {
                       tally.addFailed(1);
                       tally.keep("Commands never run as root");
                   },
               },
               item.target.value());
    for (const auto &request : requests) {
        tally.attempt([&] {
            const auto answer = privileged_->perform(request);
            tally.addRemoved(answer.removedCount, answer.bytes);
            tally.addFailed(answer.failedCount);
            if (answer.refusal) {
                tally.keep(*answer.refusal);
            }
            if (answer.error) {
                tally.keep(*answer.error);
            }
        });
    }
    return tally.fate(CleanResult::removed(), false);
}

Cleaner::Fate Cleaner::runCommand(const KlarboxItem &item, const CommandAction &action) const {
    // A stop does not reach the tool: what it began it may finish, so that the outcome is known.
    const auto result = runner_->run(action, commandTimeout);
    if (result.succeeded()) {
        return {.result = CleanResult::ranCommand(), .bytes = item.size};
    }
    const auto stuckKegs = HomebrewOutput::unremovableKegs(result.output);
    return stuckKegs.empty() ? Fate{.result = CleanResult::failed(lastLines(result.output))}
                             : homebrewFate(result.output, stuckKegs);
}

Cleaner::Fate Cleaner::homebrewFate(std::string_view output, std::span<const FileURL> stuckKegs) {
    const auto freed = HomebrewOutput::parseKlarboxEstimate(output).value_or(0) -
                       DiskUsage::allocatedSize(stuckKegs);
    std::vector<std::string> names;
    for (const auto &keg : stuckKegs) {
        names.push_back(fmt::format("{} {}", keg.parent().lastComponent(), keg.lastComponent()));
    }
    auto message = fmt::format("Homebrew couldn't remove {}: you don't have permission to delete "
                               "some of its files (often left by running brew with sudo). Fix "
                               "their ownership, then clean again.",
                               fmt::join(names, ", "));
    return {.result = freed >= 1 ? CleanResult::partial(std::move(message))
                                 : CleanResult::failed(std::move(message)),
            .bytes = std::max<std::int64_t>(freed, 0)};
}

void Cleaner::removeContents(const FileURL &folder, const FileURL &root, bool usesTrash,
                             Tally &tally) const {
    auto written = folder;
    const auto opened = openContents(folder, root, written);
    const auto resolvedRoot = SafetyGuard::resolved(root);
    if (!resolvedRoot) {
        throw SafetyRefusal(SafetyViolation::notFound);
    }
    const auto siblings = safety_->siblings(written.standardized(), opened, *resolvedRoot);
    const auto exclusionsAsWritten = excluded_.at(written);
    const auto exclusions = excluded_.at(opened->location);
    for (const auto name : opened->names()) {
        tally.attempt([&] {
            const auto entry = siblings.pin(std::string(name));
            if (!excluded_.isEmpty() && (exclusionsAsWritten.child(name).isTouched() ||
                                         exclusions.child(name).isTouched())) {
                throwExcluded(written.appending(name));
            }
            remove(entry, usesTrash, tally);
        });
    }
}

/// Opens the folder whose entries are to be removed. `written` becomes the spelling by which they
/// are judged as asked for.
std::shared_ptr<const PinnedFolder>
Cleaner::openContents(const FileURL &folder, const FileURL &root, FileURL &written) const {
    // A root may be emptied, though never removed: the guard would refuse the folder itself. But
    // not what a link in its place leads to, should that be somebody's documents.
    auto real = FileManager::realPath(folder.path());
    if (real && isPlaceOf(root, *real)) {
        if (FileManager::type(folder) == FileManager::FileType::symbolicLink &&
            !safety_->mayBeEmptied(FileURL(*real))) {
            throw SafetyRefusal(SafetyViolation::protectedLocation);
        }
        return PinnedFolder::open(PinnedEntry::open(FileURL(*real)));
    }
    const auto entry = safety_->pin(folder, root);
    written = entry.location();
    if (entry.isKnownNoFolder() && (real = FileManager::realPath(written.path()))) {
        // What a link leads to is opened where it really is: there the entries are judged.
        return PinnedFolder::open(PinnedEntry::open(FileURL(*real)));
    }
    return PinnedFolder::open(entry);
}

void Cleaner::remove(const PinnedEntry &entry, bool usesTrash, Tally &tally) const {
    const auto bytes = DiskUsage::allocatedSize(entry);
    if (usesTrash) {
        remover_->moveToTrash(entry);
    } else {
        remover_->deletePermanently(entry, {});
    }
    tally.addRemoved(1, bytes);
}

FileURL Cleaner::validate(const FileURL &url, const FileURL &root) const {
    auto validated = safety_->validate(url, root);
    expectNotExcluded(url, validated);
    return validated;
}

void Cleaner::expectNotExcluded(const FileURL &written, const FileURL &location) const {
    if (excluded_.touches(written) || excluded_.touches(location)) {
        throwExcluded(written);
    }
}

} // namespace klarbox
