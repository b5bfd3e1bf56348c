// geometry/equal_positions.h: which positions are equal.

#pragma once

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
std::uint32_t FloatKey(float x);

}  // namespace zp
