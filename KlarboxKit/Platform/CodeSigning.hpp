#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace klarbox {

/// What a verified signature says about a program. Only `Code::signingInformation` makes it from
/// real files, and only after everything was checked.
struct SigningInformation {
    bool endsInAnchor = false; ///< the certificates lead to one of this machine's anchors
    std::string identifier;    ///< CFBundleIdentifier of the embedded information property list
    std::string teamID;        ///< organisational unit of the signing certificate's subject
    std::string version;       ///< CFBundleShortVersionString; empty without one
    bool isXPCClient = false;  ///< declares itself a client (see `XPCListener`)

    bool operator==(const SigningInformation &) const = default;
};

/// A code-signing requirement: clauses that must all hold.
///
/// Immutable value, safe from any thread.
class CodeRequirement {
public:
    /// Reads `anchor apple generic`, `identifier "…"` and `certificate leaf[subject.OU] = "…"`,
    /// joined by `and`. Nothing for any other text: a clause that was ignored because it was not
    /// understood would let in whom it was written to keep out.
    static std::optional<CodeRequirement> parse(std::string_view text);

    bool isSatisfiedBy(const SigningInformation &information) const;

private:
    struct Clause {
        enum class Kind { anchor, identifier, teamID } kind;
        std::string value;
    };
    std::vector<Clause> clauses_;
};

/// Where the certificates are that a chain of signing certificates must end in.
struct CodeAnchors {
    /// Every `*.pem` in it counts. The folder, the folders above it and the files must belong to
    /// `owner` (or root) and be writable by nobody else.
    FileURL folder = FileURL("/etc/klarbox/anchors", true);
    uid_t owner = 0;
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
