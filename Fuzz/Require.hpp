#pragma once

#include <cstdio>
#include <cstdlib>

namespace klarbox::fuzz {

/// Ends the process with a word about it unless a promise was kept; that is how a target reports
/// what is neither a crash nor a sanitizer's finding.
inline void require(bool isKept, const char *promise) {
    if (!isKept) {
        std::fprintf(stderr, "broken promise: %s\n", promise);
        std::abort();
    }
}

} // namespace klarbox::fuzz
