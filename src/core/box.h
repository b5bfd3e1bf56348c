// core/box.h: axis-aligned boxes. A new box is empty and grows.

#pragma once

#include "core/vec.h"

namespace zp {

struct Box {
  Vec3 min = {kFarthest, kFarthest, kFarthest};
  Vec3 max = {-kFarthest, -kFarthest, -kFarthest};
  friend bool operator==(const Box&, const Box&) = default;
};

constexpr void Grow(Box& box, Vec3 p) {
  box.min = MinOf(box.min, p);
  box.max = MaxOf(box.max, p);
}
constexpr void Grow(Box& box, const Box& other) {
  box.min = MinOf(box.min, other.min);
  box.max = MaxOf(box.max, other.max);
}
constexpr Box Union(Box a, const Box& b) {
  Grow(a, b);
  return a;
}
constexpr bool IsEmpty(const Box& box) {
  return box.min.x > box.max.x || box.min.y > box.max.y || box.min.z > box.max.z;
}
// True if `inner` lies in `outer`, touching faces included.
constexpr bool Contains(const Box& outer, const Box& inner) {
  return outer.min.x <= inner.min.x && outer.min.y <= inner.min.y && outer.min.z <= inner.min.z &&
         outer.max.x >= inner.max.x && outer.max.y >= inner.max.y && outer.max.z >= inner.max.z;
}
constexpr Vec3 Center(const Box& box) { return 0.5f * (box.min + box.max); }

// Half of the surface area; the factor two is never restored, costs only compare.
constexpr float HalfArea(const Box& box) {
  const Vec3 d = MaxOf(box.max - box.min, kBlack);
  return (d.x + d.y) * d.z + d.x * d.y;
}

}  // namespace zp
