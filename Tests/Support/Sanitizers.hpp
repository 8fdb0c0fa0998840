#pragma once

namespace klarbox::test {

/// Whether a sanitizer watches: everything takes several times as long and as much memory then.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#else
inline constexpr bool isSanitized = false;
#endif

} // namespace klarbox::test
