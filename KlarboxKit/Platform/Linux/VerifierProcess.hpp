#pragma once

#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

/// The process that looks at the programs of peers (see `PeerVerifier`).
namespace klarbox::VerifierProcess {

/// What it sends once it has given up all that its work does not take.
inline constexpr const char *ready = "ready";

/// Makes this process that one until the other end of `control` is closed: each packet there comes
/// with the socket of a conversation about one peer. A packet that does not say `ready` says why it
/// cannot be done. For a process that was just forked and has one thread.
[[noreturn]] void run(UniqueFD control, const CodeAnchors &anchors);

} // namespace klarbox::VerifierProcess
