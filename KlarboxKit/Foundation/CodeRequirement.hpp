#pragma once

#include <optional>
#include <string>
#include <string_view>
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

} // namespace klarbox
