#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <fcntl.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

/// What makes a tree hard to walk.
namespace klarbox::test {

/// A chain of folders below `root`, each with `before` files made before the next folder and as
/// many after it, so that some stand on either side of it whatever the order of the listing.
inline void makeChain(const FileURL &root, int depth, const std::string &name, int before) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    UniqueFD at(::open(root.path().c_str(), flags));
    for (int level = 0; level < depth; ++level) {
        for (int file = 0; file < 2 * before; ++file) {
            if (file == before && ::mkdirat(at.get(), name.c_str(), S_IRWXU) != 0) {
                throw std::runtime_error("cannot make a folder of the chain");
            }
            const UniqueFD made(::openat(at.get(), std::to_string(file).c_str(),
                                         O_CREAT | O_WRONLY | O_CLOEXEC, S_IRUSR));
            if (::write(made.get(), "x", 1) != 1) {
                throw std::runtime_error("cannot make a file of the chain");
            }
        }
        at = UniqueFD(::openat(at.get(), name.c_str(), flags));
    }
}

/// For processes with mounts of their own, which end with them: trees are made outside.
inline bool mountOn(const FileURL &where, const char *options = nullptr) {
    return ::mount("none", where.path().c_str(), "tmpfs", 0, options) == 0;
}

inline bool bindOn(const FileURL &what, const FileURL &where) {
    return ::mount(what.path().c_str(), where.path().c_str(), nullptr, MS_BIND, nullptr) == 0;
}

} // namespace klarbox::test
