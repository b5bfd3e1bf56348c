// Seeded random numbers and vertices for tests that trace rays through heaps of primitives.

#pragma once

#include <cstdint>
#include <random>

#include "geometry/object.h"

namespace zp {

inline std::mt19937 generator(7);
inline float Uniform(float low, float high) {
  return std::uniform_real_distribution<float>(low, high)(generator);
}
inline Vec3 UniformPoint(float size) {
  return {Uniform(-size, size), Uniform(-size, size), Uniform(-size, size)};
}

inline std::uint32_t AddVertex(Part& part, Vec3 p) {
  part.positions.push_back(p);
  return static_cast<std::uint32_t>(part.positions.size() - 1);
}

}  // namespace zp
