// accel/cut_outs.h: hits that count by chance. What a ray is told of a primitive follows from the two alone,
// so that the same ray gets the same answer in whatever order a tree is walked, on whatever thread.

#pragma once

#include <bit>

#include "core/ray.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "shading/shading.h"

namespace zp {

// Whether some hits on this Shader do not count. An index outside the table cuts out nothing.
inline bool CutsOut(std::int32_t shader) { return HasShader(shader) && ShaderAt(shader).cutsOut; }

// A number that looks random for any two that go in: the finalizer of splitmix64 (Steele, Lea and Flood,
// "Fast Splittable Pseudorandom Number Generators", 2014).
inline std::uint64_t MixKey(std::uint64_t key, std::uint64_t next) {
  std::uint64_t x = (key ^ next) + 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30U)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27U)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31U);
}

// Tells a ray of scene space from others, and from the same one of other passes.
inline std::uint64_t RayKey(const RayRecord& ray) {
  const auto pair = [](float a, float b) {
    return (std::uint64_t{std::bit_cast<std::uint32_t>(a)} << 32U) | std::bit_cast<std::uint32_t>(b);
  };
  const Vec3 o = ray.origin, d = ray.direction;
  const auto pass = static_cast<std::uint64_t>(settings.frame.samplePass);
  return MixKey(MixKey(MixKey(MixKey(0, pass), pair(o.x, o.y)), pair(o.z, d.x)), pair(d.y, d.z));
}

// Whether the ray of this key, in the Object that is walked, is stopped by the primitive.
//   shader  that shows there: it cuts out
inline bool CountsByChance(std::uint64_t key, const Object& object, const Part& part, std::uint8_t kind,
                           std::uint32_t index, Vec3 barycentric, std::int32_t shader) {
  const auto number = static_cast<std::uint64_t>(&part - object.parts.data());
  const std::uint64_t drawn = MixKey(key, (number << 48U) | (std::uint64_t{kind} << 32U) | index);
  const float opacity = Opacity(ShaderAt(shader), CornerUv(HitCorners(part, kind, index, barycentric), part));
  return static_cast<float>(drawn >> 40U) * 0x1p-24f < opacity;
}

}  // namespace zp
