#pragma once

#include "KlarboxKit/Platform/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
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

/// A program's executable, open.
class Code {
public:
    /// Longest executable that is looked at: far more than any program of ours, little enough that
    /// hashing a hostile one costs a moment.
    static constexpr std::size_t maximumSize = std::size_t{64} << 20;

    /// Takes an executable open for reading.
    explicit Code(UniqueFD executable) : executable_(std::move(executable)) {}

    /// The executable that this process runs. Throws `PlatformError`.
    static Code ofCurrentProcess();

    /// The executable at this path. Throws `PlatformError`.
    static Code at(const FileURL &url);

    /// Verifies the detached signature that lies beside the executable (its name and ".cms") over
    /// the very bytes that are open here, the signer's certificates at the present moment included,
    /// and returns what it vouches for. All of it stems from the bytes that were verified, also
    /// when the file changes meanwhile. The anchors are read anew by every call. Throws
    /// `PlatformError` saying what is wrong; never anything else. Safe from any thread.
    SigningInformation signingInformation(const CodeAnchors &anchors) const;

    /// Whether the signature is good and satisfies the requirement.
    bool satisfies(const CodeRequirement &requirement, const CodeAnchors &anchors) const;

private:
    UniqueFD executable_;
};

} // namespace klarbox
