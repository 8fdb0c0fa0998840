#pragma once

#include "KlarboxKit/Safety/SafetyViolation.hpp"

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace klarbox {

/// What cleaning one item came to. Read it with `std::visit(overloaded{…}, result.value())`.
class CleanResult {
public:
    /// Some of the item went and some did not; the message says what was left.
    struct Partial {
        std::string message;
        bool operator==(const Partial &) const = default;
    };
    /// Nothing was removed; the message says why.
    struct Failed {
        std::string message;
        bool operator==(const Failed &) const = default;
    };
    /// Nothing was removed because the safety guard refused the target.
    struct Refused {
        SafetyViolation violation;
        bool operator==(const Refused &) const = default;
    };
    /// Everything was deleted.
    struct Removed {
        bool operator==(const Removed &) const = default;
    };
    /// Everything was moved to the Trash.
    struct MovedToTrash {
        bool operator==(const MovedToTrash &) const = default;
    };
    /// The item's command ran and reported success.
    struct RanCommand {
        bool operator==(const RanCommand &) const = default;
    };
    using Value = std::variant<Partial, Failed, Refused, Removed, MovedToTrash, RanCommand>;

    static CleanResult partial(std::string message) { return Value(Partial{std::move(message)}); }
    static CleanResult failed(std::string message) { return Value(Failed{std::move(message)}); }
    static CleanResult refused(SafetyViolation violation) { return Value(Refused{violation}); }
    static CleanResult removed() { return Value(Removed{}); }
    static CleanResult movedToTrash() { return Value(MovedToTrash{}); }
    static CleanResult ranCommand() { return Value(RanCommand{}); }

    const Value &value() const { return value_; }
    /// Whether the item did not come out clean: partial, failed or refused.
    bool isFailure() const;

    bool operator==(const CleanResult &) const = default;

private:
    CleanResult(Value value) : value_(std::move(value)) {}
    Value value_;
};

/// What happened to one item.
struct CleanOutcome {
    std::string id;    ///< the item's identifier
    std::string title; ///< the item's title
    CleanResult result;
    std::int64_t bytes = 0;   ///< freed or moved; 0 when nothing was removed
    bool wentToTrash = false; ///< whether `bytes` sit in the Trash

    bool operator==(const CleanOutcome &) const = default;
};

/// One outcome per cleaned item, in the order of cleaning.
struct CleanReport {
    std::vector<CleanOutcome> outcomes = {};

    /// Bytes freed outright, those of partial outcomes included.
    std::int64_t freedBytes() const;
    /// Bytes that emptying the Trash will free.
    std::int64_t trashedBytes() const;
    /// The outcomes that are failures, in order.
    std::vector<CleanOutcome> failures() const;

    bool operator==(const CleanReport &) const = default;
};

} // namespace klarbox
