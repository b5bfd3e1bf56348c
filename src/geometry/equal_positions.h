// geometry/equal_positions.h: which positions are equal.

#pragma once

#include <bit>
#include <cstdint>
#include <span>

#include "core/release.h"
#include "core/vec.h"

namespace zp {

// For each position the first one that is equal to it: itself, if none is before it. Both zeros are equal.
// Without `byBits` a position that is no number equals none, else it equals those of the same bits. The same
// for any number of threads.
RawVector<std::uint32_t> FirstEqual(std::span<const Vec3> positions, bool byBits);

// Equal floats have equal keys: both zeros share one, and each not-a-number is equal to itself.
inline std::uint32_t FloatKey(float x) { return std::bit_cast<std::uint32_t>(x == 0.0f ? 0.0f : x); }
inline bool HasSameKey(float a, float b) {
  return a == b || std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

}  // namespace zp
