#pragma once

#include <cstddef>
#include <optional>
#include <utility>

namespace klarbox {

/// The right of one walker to keep some descriptors open. Every walker holds one, so that however
/// many measurements go on at once they stay within half of what the process may open and nobody
/// else fails for want of a descriptor. Move-only; safe from any thread.
class DescriptorGrant {
public:
    /// Waits until it is this thread's turn. Whoever waits must hold no other grant.
    static DescriptorGrant wait();

    /// For walkers that others can do without: none when the place is needed for those who wait.
    static std::optional<DescriptorGrant> ifAmple();

    DescriptorGrant(DescriptorGrant &&other) noexcept
        : descriptors_(std::exchange(other.descriptors_, 0)) {}
    DescriptorGrant &operator=(DescriptorGrant &&) = delete;
    ~DescriptorGrant();

    /// How many descriptors may be open at once; at least `fewest`.
    std::size_t descriptors() const { return descriptors_; }

    static constexpr std::size_t fewest = 5;

private:
    explicit DescriptorGrant(std::size_t descriptors) : descriptors_(descriptors) {}

    std::size_t descriptors_; ///< 0 once moved from
};

} // namespace klarbox
