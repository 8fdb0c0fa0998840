#include "KlarboxKit/Platform/ThreadWaits.hpp"

#include <sys/resource.h>

namespace klarbox {

std::int64_t threadWaits() {
    rusage usage{};
    return ::getrusage(RUSAGE_THREAD, &usage) == 0 ? usage.ru_nvcsw : 0;
}

} // namespace klarbox
