#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/XPCConnection.hpp"

#include <iosfwd>
#include <optional>
#include <string>

namespace klarbox {

/// What can be said about the helper of a machine.
struct HelperStatus {
    bool isInstalled = false;           ///< its executable is there
    bool isReachable = false;           ///< something listens at its socket
    std::optional<std::string> version; ///< set when it is correctly signed
    std::string problem;                ///< a sentence; empty when requests can be made
    std::string remedy;                 ///< what to do about it; empty with `problem`

    bool operator==(const HelperStatus &) const = default;
};

/// Looks at the helper whose executable is installed at `executable` and that serves as `service`.
/// Connects to it, asks for nothing. Throws nothing of its own.
HelperStatus helperStatus(const FileURL &executable, const XPCConnection::Service &service);

/// `klarbox helper`: prints whether the helper of this machine is installed, reachable and
/// correctly signed, its version, and how to mend what is wrong. 0 when requests can be made,
/// else 1.
int runHelperCommand(std::ostream &out);

/// The same about a given status.
int printHelperStatus(std::ostream &out, const HelperStatus &status);

} // namespace klarbox
