#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <dirent.h>
#include <dlfcn.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

/// Stands in for the system calls by which the engine looks at files, lists and removes them, so
/// that something can happen between any two of them. For one source of a program.
namespace klarbox::test {

/// What happens before and after each call of this thread, but for those that it makes itself.
inline thread_local std::function<void()> atEveryCall;

inline void observe() {
    if (auto observer = std::exchange(atEveryCall, nullptr)) {
        observer();
        atEveryCall = std::move(observer);
    }
}

/// Makes the call that the program would make without these, observed.
template <typename Function, typename... Arguments>
auto observed(const char *name, Arguments... arguments) {
    observe();
    const auto result = reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name))(arguments...);
    const int code = errno;
    observe();
    errno = code;
    return result;
}

/// Does something again and again, each time with an attack at another moment of it, from before
/// its first call to after its last, and with a second attack, which undoes the first, as many
/// moments later. `round` calls what it is given when the moments begin. Answers how many there
/// are.
inline int atEveryMoment(int lasting, const std::function<void()> &attack,
                         const std::function<void(const std::function<void()> &begin)> &round) {
    int moments = 0;
    for (bool isReached = true; isReached; ++moments) {
        isReached = false;
        int moment = 0;
        round([&] {
            atEveryCall = [&] {
                const int since = moment++ - moments;
                isReached = isReached || since == 0;
                if (since == 0 || since == lasting) {
                    attack();
                }
            };
        });
        atEveryCall = nullptr;
    }
    return moments - 1;
}

} // namespace klarbox::test

extern "C" int fstatat(int at, const char *name, struct stat *status, int flags) noexcept {
    return klarbox::test::observed<decltype(::fstatat)>("fstatat", at, name, status, flags);
}

extern "C" int statx(int at, const char *name, int flags, unsigned wanted,
                     struct statx *status) noexcept {
    return klarbox::test::observed<decltype(::statx)>("statx", at, name, flags, wanted, status);
}

extern "C" int unlinkat(int at, const char *name, int flags) noexcept {
    return klarbox::test::observed<decltype(::unlinkat)>("unlinkat", at, name, flags);
}

extern "C" ssize_t getdents64(int folder, void *buffer, std::size_t size) noexcept {
    return klarbox::test::observed<decltype(::getdents64)>("getdents64", folder, buffer, size);
}

// Takes as many arguments as any call may have, as the one that it stands in for does.
extern "C" [[gnu::no_sanitize_address]] long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (auto &argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    return klarbox::test::observed<decltype(::syscall)>("syscall", number, arguments[0],
                                                        arguments[1], arguments[2], arguments[3],
                                                        arguments[4], arguments[5]);
}
