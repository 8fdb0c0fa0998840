#pragma once

#include <utility>

namespace klarbox {

/// Owns one file descriptor and closes it. Move-only; -1 stands for none.
class UniqueFD {
public:
    UniqueFD() = default;
    explicit UniqueFD(int fd) : fd_(fd) {}
    UniqueFD(UniqueFD &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFD &operator=(UniqueFD &&other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd_, -1));
        }
        return *this;
    }
    UniqueFD(const UniqueFD &) = delete;
    UniqueFD &operator=(const UniqueFD &) = delete;
    ~UniqueFD() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    /// Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    /// Closes the descriptor held, keeping errno, and takes `fd` instead.
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

} // namespace klarbox
