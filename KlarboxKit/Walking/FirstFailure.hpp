#pragma once

#include <cstdint>

namespace klarbox {

/// Of the failures among one folder's entries, the one that comes first in its listing, in whatever
/// order they happen.
class FirstFailure {
public:
    /// `code` is an errno value; 0 is no failure.
    void note(std::uint64_t position, int code) {
        if (code != 0 && (code_ == 0 || position < position_)) {
            position_ = position;
            code_ = code;
        }
    }
    void note(const FirstFailure &other) { note(other.position_, other.code_); }
    int code() const { return code_; }

private:
    std::uint64_t position_ = 0;
    int code_ = 0;
};

} // namespace klarbox
