#pragma once

#include <cstdint>

namespace klarbox {

/// How often the calling thread has given up the processor by itself so far, because what it asked
/// for (the disk, above all) was not at hand. Being interrupted for another thread does not count.
std::int64_t threadWaits();

} // namespace klarbox
