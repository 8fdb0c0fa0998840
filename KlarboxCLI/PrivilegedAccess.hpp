#pragma once

#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Platform/XPCConnection.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include <cstddef>
#include <memory>
#include <string>

namespace klarbox {

/// How this process gets files removed that belong to the system.
class PrivilegedAccess {
public:
    /// To the files below `roots`: this process itself when it is root, else the helper, which
    /// knows only the startup disk of the machine it runs on and is never asked about another.
    /// `waiting` hears about the wait for each of its answers, perhaps once more just after a
    /// request ran out of time.
    PrivilegedAccess(const PrivilegedRoots &roots, std::shared_ptr<const SafetyGuard> guard,
                     XPCConnection::Waiting waiting = {});

    /// Null when no helper is installed, and when none may be asked.
    const std::shared_ptr<const PrivilegedRemoving> &remover() const { return remover_; }

    /// Whether what is handed to the remover can be expected to go.
    bool canRemove() const { return way_ == Way::itself || way_ == Way::helper; }

    /// What to know before `count` items (at least one) are handed to the remover, as a sentence.
    std::string remark(std::size_t count) const;

private:
    enum class Way { itself, helper, missingHelper, onlyRoot };

    Way way_;
    std::shared_ptr<const PrivilegedRemoving> remover_;
};

} // namespace klarbox
