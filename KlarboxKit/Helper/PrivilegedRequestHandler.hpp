#pragma once

#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"
#include "KlarboxKit/Platform/FileURL.hpp"
#include "KlarboxKit/Safety/ItemRemover.hpp"
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
    PrivilegedRemovalResult handle(const PrivilegedRequest &request) const;

    /// The same; throws nothing either.
    PrivilegedRemovalResult perform(const PrivilegedRequest &request) const override {
        return handle(request);
    }

private:
    struct Resolved {
        FileURL url;  ///< the path, lexically standardised
        FileURL root; ///< the most specific root it falls under
    };

    /// Throws `SafetyRefusal` for a path that falls under no root.
    Resolved resolve(const std::string &path) const;
    PrivilegedRemovalResult removeItem(const std::string &path) const;
    PrivilegedRemovalResult removeContents(const std::string &path) const;
    PrivilegedRemovalResult removeChild(const FileURL &child, const FileURL &folder,
                                        const FileURL &root) const;
    PrivilegedRemovalResult removeValidated(const FileURL &url) const;

    std::vector<FileURL> roots_;
    std::shared_ptr<const SafetyGuard> safety_;
    std::shared_ptr<const ItemRemover> remover_;
};

} // namespace klarbox
