#include "KlarboxKit/Foundation/CodeRequirement.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <algorithm>

namespace klarbox {

namespace {

/// Reads a requirement from left to right.
class RequirementReader {
public:
    explicit RequirementReader(std::string_view text) : rest_(text) {}

    bool atEnd() {
        skipSpaces();
        return rest_.empty();
    }

    /// Takes the words in order, each a whole word, with any white space between them.
    bool takeWords(std::initializer_list<std::string_view> words) {
        const auto before = rest_;
        for (const auto word : words) {
            skipSpaces();
            if (!rest_.starts_with(word) ||
                (rest_.size() > word.size() && isWordCharacter(word.back()) &&
                 isWordCharacter(rest_[word.size()]))) {
                rest_ = before;
                return false;
            }
            rest_.remove_prefix(word.size());
        }
        return true;
    }

    /// Takes a text in double quotes. A backslash would begin an escape, which no name of ours
    /// needs.
    std::optional<std::string> takeQuoted() {
        skipSpaces();
        if (!rest_.starts_with('"')) {
            return std::nullopt;
        }
        const auto end = rest_.find('"', 1);
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        std::string value(rest_.substr(1, end - 1));
        if (value.empty() ||
            value.find_first_of(std::string_view("\\\0", 2)) != std::string::npos) {
            return std::nullopt;
        }
        rest_.remove_prefix(end + 1);
        return value;
    }

private:
    static bool isWordCharacter(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '.' || c == '-';
    }

    void skipSpaces() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\n\r"), rest_.size()));
    }

    std::string_view rest_;
};

} // namespace

std::optional<CodeRequirement> CodeRequirement::parse(std::string_view text) {
    RequirementReader reader(text);
    CodeRequirement requirement;
    do {
        if (reader.takeWords({"anchor", "apple", "generic"})) {
            requirement.clauses_.push_back({Clause::Kind::anchor, {}});
            continue;
        }
        Clause::Kind kind{};
        if (reader.takeWords({"identifier"})) {
            kind = Clause::Kind::identifier;
        } else if (reader.takeWords({"certificate", "leaf", "[", "subject.OU", "]", "="})) {
            kind = Clause::Kind::teamID;
        } else {
            return std::nullopt;
        }
        auto value = reader.takeQuoted();
        if (!value) {
            return std::nullopt;
        }
        requirement.clauses_.push_back({kind, std::move(*value)});
    } while (reader.takeWords({"and"}));
    if (!reader.atEnd()) {
        return std::nullopt;
    }
    return requirement;
}

bool CodeRequirement::isSatisfiedBy(const SigningInformation &information) const {
    return std::ranges::all_of(clauses_, [&](const Clause &clause) {
        switch (clause.kind) {
        case Clause::Kind::anchor:
            return information.endsInAnchor;
        case Clause::Kind::identifier:
            return information.identifier == clause.value;
        case Clause::Kind::teamID:
            return information.teamID == clause.value;
        }
        return false;
    });
}

} // namespace klarbox
