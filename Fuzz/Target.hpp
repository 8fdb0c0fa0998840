#pragma once

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace klarbox::fuzz {

/// What a target does with one input. Every target defines it.
void run(std::string_view input);

/// Ends the process with a word about it unless a promise was kept; that is how a target reports
/// what is neither a crash nor a sanitizer's finding.
inline void require(bool isKept, const char *promise) {
    if (!isKept) {
        std::fprintf(stderr, "broken promise: %s\n", promise);
        std::abort();
    }
}

/// Does what bad input may end with a `PlatformError`; throwing anything else is a finding.
template <typename Attempt>
void tryTo(const Attempt &attempt) {
    try {
        attempt();
    } catch (const PlatformError &error) {
        require(!error.message().empty(), "an error says what is wrong");
    }
}

} // namespace klarbox::fuzz
