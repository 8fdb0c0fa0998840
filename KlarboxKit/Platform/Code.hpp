#pragma once

#include "KlarboxKit/Foundation/CodeRequirement.hpp"
#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <functional>
#include <sys/types.h>
#include <utility>

namespace klarbox {

/// Where the certificates are that a chain of signing certificates must end in.
struct CodeAnchors {
    /// Every `*.pem` in it counts. The folder, the folders above it and the files must belong to
    /// `owner` (or root) and be writable by nobody else.
    FileURL folder = installed();
    uid_t owner = 0;

    /// Where an installation of ours has them.
    static FileURL installed();
};

/// A program's executable, open, and its signature.
class Code {
public:
    /// Longest executable that is looked at: far more than any program of ours, little enough that
    /// hashing a hostile one costs a moment.
    static constexpr std::size_t maximumSize = std::size_t{64} << 20;
    /// Longest signature, in bytes: one with a chain of certificates is a few thousand.
    static constexpr std::size_t maximumSignatureSize = std::size_t{16} << 10;

    /// Takes an executable open for reading. Its signature is opened whenever it is asked for.
    explicit Code(UniqueFD executable) : executable_(std::move(executable)) {}

    /// Takes an executable and its signature, both open for reading, so that whoever verifies them
    /// needs no right to open them.
    Code(UniqueFD executable, UniqueFD signature)
        : executable_(std::move(executable)),
          signature_(std::move(signature)) {}

    /// The executable that this process runs. Throws `PlatformError`.
    static Code ofCurrentProcess();

    /// The executable at this path. Throws `PlatformError`.
    static Code at(const FileURL &url);

    /// Opens for reading the file beside an open executable that has its name and ".cms": nothing
    /// but a regular file, and not through a link. Throws `PlatformError` when there is none, and
    /// when the executable's name has come to lead elsewhere or nowhere. Safe from any thread.
    static UniqueFD openSignature(const UniqueFD &executable);

    /// Verifies the detached signature over the very bytes that are open here, the signer's
    /// certificates at the present moment included, and returns what it vouches for. All of it
    /// stems from the bytes that were verified, also when the file changes meanwhile. The anchors
    /// are read anew by every call; nothing else is opened when the signature is open already.
    ///
    /// The executable is read once, and only when a trusted signer signed something. `isCancelled`
    /// (empty: never) is asked at the start and between pieces of at most 256 KiB; once it says
    /// yes, the call ends with the POSIX `PlatformError` ECANCELED. Otherwise throws a
    /// `PlatformError` saying what is wrong; never anything else, but for what `isCancelled`
    /// throws. Safe from any thread.
    SigningInformation signingInformation(const CodeAnchors &anchors,
                                          const std::function<bool()> &isCancelled = {}) const;

    /// Whether the signature is good and satisfies the requirement.
    bool satisfies(const CodeRequirement &requirement, const CodeAnchors &anchors) const;

private:
    UniqueFD executable_;
    UniqueFD signature_; ///< none: beside the executable
};

} // namespace klarbox
