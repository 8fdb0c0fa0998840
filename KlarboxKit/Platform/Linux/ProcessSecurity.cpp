#include "KlarboxKit/Platform/ProcessSecurity.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/Capabilities.hpp"
#include "KlarboxKit/Platform/Linux/SystemCallFilter.hpp"

#include <algorithm>
#include <cerrno>
#include <grp.h>
#include <linux/capability.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace klarbox::ProcessSecurity {

void setGroupAside() {
    gid_t real = 0;
    gid_t effective = 0;
    gid_t saved = 0;
    if (::getresgid(&real, &effective, &saved) != 0) {
        throw PlatformError::posix(errno);
    }
    if (effective == real) {
        return;
    }
    if (::setresgid(real, real, effective) != 0 || ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        throw PlatformError::posix(errno);
    }
}

void prepareDaemon() {
    ::umask(077);
    // By default each of many threads may come to hold an arena of its own for good. There is one
    // thread yet. NOLINTNEXTLINE(concurrency-mt-unsafe)
    ::mallopt(M_ARENA_MAX, 2);
    // Enough for every connection that is served at once to be looked at and to remove something;
    // where it cannot be had, the listener makes do with fewer.
    constexpr rlim_t descriptors = 8192;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < descriptors) {
        limit.rlim_cur = std::min(limit.rlim_max, descriptors);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void confineDaemon() {
    keepCapabilities({CAP_DAC_OVERRIDE, CAP_FOWNER});
    forbidSystemCalls(FileAccess::readingAndRemoving);
}

std::optional<gid_t> groupNamed(const char *name) {
    std::vector<char> buffer(16384);
    group entry{};
    group *found = nullptr;
    int code = 0;
    while ((code = ::getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found)) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (found != nullptr) {
        return found->gr_gid;
    }
    // How different systems' databases say that there is no such name.
    if (code == 0 || code == ENOENT || code == ESRCH) {
        return std::nullopt;
    }
    throw PlatformError::posix(code);
}

} // namespace klarbox::ProcessSecurity
