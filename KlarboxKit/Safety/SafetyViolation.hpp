#pragma once

#include "KlarboxKit/Foundation/RawValue.hpp"

#include <exception>
#include <string_view>

namespace klarbox {

/// Why a path may not be removed. Thrown by `SafetyGuard` inside a `SafetyRefusal`.
enum class SafetyViolation {
    notFound,          ///< the root, the path's parent folder or the path itself does not exist
    isRoot,            ///< the file-system root, the root folder itself, or no name at all
    notInsideRoot,     ///< not strictly inside the root, and never written as if it were
    symlinkEscape,     ///< written inside the root, but links in its parents lead out of it
    protectedLocation, ///< one of the folders that are never removed themselves
    insideGitDirectory ///< a component of the resolved path is ".git"
};

template <>
struct RawValues<SafetyViolation> {
    static constexpr std::array table{
        RawCase{SafetyViolation::notFound, std::string_view("notFound")},
        RawCase{SafetyViolation::isRoot, std::string_view("isRoot")},
        RawCase{SafetyViolation::notInsideRoot, std::string_view("notInsideRoot")},
        RawCase{SafetyViolation::symlinkEscape, std::string_view("symlinkEscape")},
        RawCase{SafetyViolation::protectedLocation, std::string_view("protectedLocation")},
        RawCase{SafetyViolation::insideGitDirectory, std::string_view("insideGitDirectory")},
    };
};

/// A `SafetyViolation` as a thrown error.
class SafetyRefusal : public std::exception {
public:
    explicit SafetyRefusal(SafetyViolation violation) : violation_(violation) {}
    SafetyViolation violation() const { return violation_; }
    const char *what() const noexcept override { return rawValue(violation_).data(); }

private:
    SafetyViolation violation_;
};

} // namespace klarbox
