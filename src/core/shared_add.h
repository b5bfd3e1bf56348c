// core/shared_add.h: sums that many threads add to. Two threads that meet may lose one addition: accepted,
// for a sum of millions and no lock. Nothing is torn, and nothing is undefined.

#pragma once

#include <atomic>

#include "core/vec.h"

namespace zp {

inline void AddShared(float& sum, float value) {
  const std::atomic_ref<float> shared(sum);
  shared.store(shared.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

inline void AddShared(Vec3& sum, Vec3 value) {
  AddShared(sum.x, value.x);
  AddShared(sum.y, value.y);
  AddShared(sum.z, value.z);
}

}  // namespace zp
