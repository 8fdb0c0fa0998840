#pragma once

#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/Linux/PeerProcess.hpp"
#include "KlarboxKit/Platform/Linux/RunningProgram.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <chrono>
#include <sys/types.h>

namespace klarbox {

/// Looks at the programs of peers in a process of its own. Looking takes the right to look at every
/// process (CAP_SYS_PTRACE) and the reading of files that strangers made. Together with the power
/// over files that this process may have, each of the two would be a way to own the machine; so the
/// other process has that one right, belongs to a user who owns nothing, and never touches a file
/// but through descriptors that it is handed.
///
/// Safe from any thread.
class PeerVerifier {
public:
    struct Verified {
        RunningProgram program;
        SigningInformation information;
    };

    /// Starts the process. No other thread of this one may be running yet. Throws `PlatformError`.
    explicit PeerVerifier(const CodeAnchors &anchors);
    /// Ends the process and waits for its end.
    ~PeerVerifier();
    PeerVerifier(const PeerVerifier &) = delete;
    PeerVerifier &operator=(const PeerVerifier &) = delete;

    /// Verifies the program that a peer runs at this moment. Blocks until the other process is done
    /// with it, also when nobody waits for the verdict any more: at the deadline, or when the peer
    /// ends its `connection`. Then that is shut down and the other process told to stop. Throws
    /// `PlatformError` saying why the peer is not to be served.
    Verified verify(const PeerProcess &peer, const UniqueFD &connection,
                    std::chrono::steady_clock::time_point deadline) const;

    /// Ready for reading (as `poll` knows it) once the process has ended, which nothing but a fault
    /// in it explains.
    const UniqueFD &ended() const { return control_; }

private:
    UniqueFD control_;
    pid_t pid_ = -1;
};

} // namespace klarbox
