#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"
#include "KlarboxKit/Safety/ItemRemover.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/PinnedFolder.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace klarbox {

/// Everything that decides what a privileged request may remove, and does it: in the helper as
/// root, or in the application when that runs as root itself.
///
/// Immutable and without locks; requests may run side by side on any threads.
class PrivilegedRequestHandler final : public PrivilegedRemoving {
public:
    /// Nothing outside `roots` is ever removed, nor a root itself; of roots that are equally
    /// specific the earlier one decides. Only `deletePermanently` of the remover is used.
    PrivilegedRequestHandler(std::vector<FileURL> roots, std::shared_ptr<const SafetyGuard> guard,
                             std::shared_ptr<const ItemRemover> remover)
        : roots_(std::move(roots)),
          safety_(std::move(guard)),
          remover_(std::move(remover)) {}

    /// Does what the request asks and tells what came of it. Never throws: every failure is part
    /// of the result, and one that concerns a single entry of a folder does not stop the others.
    ///
    /// The path is followed once, to open the folder that really holds what it names; all that is
    /// told of and removed is found through that folder.
    ///
    /// `isCancelled` (empty: never) is asked on this thread before every entry of a folder, and now
    /// and then while one is measured or removed; it must not throw. From its first yes on nothing
    /// more is removed: what is left counts as failed, what went before as removed.
    PrivilegedRemovalResult handle(const PrivilegedRequest &request,
                                   const ItemRemover::CancellationTest &isCancelled = {}) const;

    /// The same; throws nothing either.
    PrivilegedRemovalResult perform(const PrivilegedRequest &request) const override {
        return handle(request);
    }

private:
    class Cancellation;

    struct Resolved {
        FileURL url;                                ///< the path, lexically standardised
        std::shared_ptr<const PinnedFolder> folder; ///< that really holds what it names
        SafetyGuard::Root root;                     ///< the most specific one it falls under
    };

    /// Throws `SafetyRefusal` for a path that falls under no root.
    Resolved resolve(const std::string &path) const;
    PinnedEntry pin(const Resolved &resolved) const;
    PrivilegedRemovalResult removeItem(const std::string &path, Cancellation &cancellation) const;
    PrivilegedRemovalResult removeContents(const std::string &path,
                                           Cancellation &cancellation) const;
    PrivilegedRemovalResult remove(const PinnedEntry &entry, Cancellation &cancellation) const;

    std::vector<FileURL> roots_;
    std::shared_ptr<const SafetyGuard> safety_;
    std::shared_ptr<const ItemRemover> remover_;
};

} // namespace klarbox
