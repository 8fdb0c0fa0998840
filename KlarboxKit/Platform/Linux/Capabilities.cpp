#include "KlarboxKit/Platform/Linux/Capabilities.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace klarbox {

namespace {

using Sets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

__user_cap_header_struct ofThisThread() {
    return {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
}

Sets currentSets() {
    auto header = ofThisThread();
    Sets sets{};
    if (::syscall(SYS_capget, &header, sets.data()) != 0) {
        throw PlatformError::posix(errno);
    }
    return sets;
}

constexpr std::uint32_t bit(int capability) {
    return std::uint32_t{1} << (static_cast<unsigned>(capability) % 32);
}

void require(int result) {
    if (result != 0) {
        throw PlatformError::posix(errno);
    }
}

void set(const Sets &sets) {
    auto header = ofThisThread();
    require(static_cast<int>(::syscall(SYS_capset, &header, sets.data())));
}

} // namespace

bool hasCapability(int capability) {
    const auto sets = currentSets();
    return (sets.at(static_cast<std::size_t>(capability) / 32).effective & bit(capability)) != 0;
}

void keepCapabilities(std::initializer_list<int> kept) {
    require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
    require(::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0));
    auto had = currentSets();
    // Becoming another user takes them out of effect.
    for (auto &word : had) {
        word.effective = word.permitted;
    }
    set(had);
    // Whoever may not lower the bound has no privileges that it would bound.
    if (hasCapability(CAP_SETPCAP)) {
        for (int each = 0; ::prctl(PR_CAPBSET_READ, each, 0, 0, 0) >= 0; ++each) {
            if (std::ranges::find(kept, each) == kept.end()) {
                require(::prctl(PR_CAPBSET_DROP, each, 0, 0, 0));
            }
        }
    }
    Sets sets{};
    for (const int each : kept) {
        const auto word = static_cast<std::size_t>(each) / 32;
        sets.at(word).permitted |= had.at(word).permitted & bit(each);
        sets.at(word).effective = sets.at(word).permitted;
    }
    set(sets);
}

} // namespace klarbox
