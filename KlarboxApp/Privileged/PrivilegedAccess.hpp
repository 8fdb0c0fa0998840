#pragma once

#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Platform/XPCConnection.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include <memory>

namespace klarbox {

/// How this process gets files removed that belong to the system.
class PrivilegedAccess {
public:
    /// By this process itself, by the helper, or not at all: no helper is installed, or it is
    /// another disk than this machine's, about which the helper knows nothing.
    enum class Way { itself, helper, missingHelper, onlyRoot };

    /// To the files below `roots`, as things stand.
    static Way way(const PrivilegedRoots &roots);

    /// `waiting` hears about the wait for each of its answers, perhaps once more just after a
    /// request ran out of time.
    PrivilegedAccess(const PrivilegedRoots &roots, std::shared_ptr<const SafetyGuard> guard,
                     XPCConnection::Waiting waiting = {});

    /// Null when there is no way.
    const std::shared_ptr<const PrivilegedRemoving> &remover() const { return remover_; }

private:
    std::shared_ptr<const PrivilegedRemoving> remover_;
};

} // namespace klarbox
