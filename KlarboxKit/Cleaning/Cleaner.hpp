#pragma once

#include "KlarboxKit/Commands/CommandRunning.hpp"
#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"
#include "KlarboxKit/Model/CleanReport.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"
#include "KlarboxKit/Model/RemovalMode.hpp"
#include "KlarboxKit/Safety/ItemRemover.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/PinnedFolder.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"
#include "KlarboxKit/Scanning/Exclusions.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// Removes the items that a person selected, each in the way its target, its flags and the mode
/// ask for, and tells what came of every one. Immutable; safe from any thread.
class Cleaner {
public:
    /// How long one item's command may run.
    static constexpr std::chrono::minutes commandTimeout{15};

    /// Called with the place of the item in hand, the number of items and its title, and at the
    /// end with the number of items done and an empty title. Must not throw.
    using Progress =
        std::function<void(std::int64_t index, std::int64_t total, const std::string &title)>;

    /// `privileged` is null when the helper is turned off. A path that `excluded`
    /// touches, as written or with links resolved, fails and stays as it is.
    Cleaner(std::shared_ptr<const SafetyGuard> guard, std::shared_ptr<const ItemRemover> remover,
            std::shared_ptr<const CommandRunning> runner,
            std::shared_ptr<const PrivilegedRemoving> privileged, Exclusions excluded = {});

    /// Blocks until every item is dealt with, one after another in their order; the report has one
    /// outcome for each. A requested stop is honoured between items: the item in hand is finished
    /// and the report ends with it. Whatever fails is an outcome, memory that runs out included;
    /// only when there is none for the report itself `std::bad_alloc` is thrown, before anything
    /// is touched. `progress` is called on the calling thread.
    CleanReport clean(std::span<const KlarboxItem> items, RemovalMode mode,
                      const Progress &progress, std::stop_token stop = {}) const;

private:
    class Tally;
    struct Fate;

    Fate clean(const KlarboxItem &item, RemovalMode mode) const noexcept;
    Fate cleanAsUser(const KlarboxItem &item, const FileURL &root, bool usesTrash) const;
    Fate cleanWithHelper(const KlarboxItem &item, const FileURL &root) const;
    Fate runCommand(const KlarboxItem &item, const CommandAction &action) const;
    static Fate homebrewFate(std::string_view output, std::span<const FileURL> stuckKegs);
    void removeContents(const FileURL &folder, const FileURL &root, bool usesTrash,
                        Tally &tally) const;
    std::shared_ptr<const PinnedFolder> openContents(const FileURL &folder, const FileURL &root,
                                                     FileURL &written) const;
    void remove(const PinnedEntry &entry, bool usesTrash, Tally &tally) const;
    FileURL validate(const FileURL &url, const FileURL &root) const;
    void expectNotExcluded(const FileURL &written, const FileURL &location) const;

    std::shared_ptr<const SafetyGuard> safety_;
    std::shared_ptr<const ItemRemover> remover_;
    std::shared_ptr<const CommandRunning> runner_;
    std::shared_ptr<const PrivilegedRemoving> privileged_;
    Exclusions excluded_;
};

} // namespace klarbox
