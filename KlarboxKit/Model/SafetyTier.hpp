#pragma once

#include "KlarboxKit/Foundation/RawValue.hpp"

namespace klarbox {

/// How much care removing an item needs, from least to most.
enum class SafetyTier { safe, leftover, review };

template <>
struct RawValues<SafetyTier> {
    static constexpr std::array table{
        RawCase{SafetyTier::safe, 0},
        RawCase{SafetyTier::leftover, 1},
        RawCase{SafetyTier::review, 2},
    };
};

} // namespace klarbox
