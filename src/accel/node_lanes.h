// accel/node_lanes.h: nodes of the binary tree in lanes. They are written and read whole: a load that takes
// in several stores has to wait until these have reached the cache.

#pragma once

#include "accel/split.h"
#include "geometry/object.h"

namespace zp {

// A node as it lies in memory: the lower corner, the upper one, and the two words.
using NodeLanes = Float8;

inline NodeLanes LanesOf(const BinaryNode& n) { return Float8::LoadAligned(&n.box.min.x); }
inline void Store(BinaryNode& n, NodeLanes lanes) { lanes.StoreAligned(&n.box.min.x); }

// From here on what the two words are does not matter.
inline NodeLanes UnionOf(NodeLanes a, NodeLanes b) { return Select<0x38>(Min(b, a), Max(b, a)); }
inline float HalfAreaOf(NodeLanes n) {
  alignas(32) static constexpr std::uint32_t kUpper[8] = {3, 4, 5, 5, 5, 5, 5, 5};
  const Float4 extent = LowHalf(Permute(n, Words8::Load(kUpper))) - LowHalf(n);
  return PairProducts(Max(Float4::Set(0), extent));
}
inline LaneBox ToLaneBox(NodeLanes n) {
  alignas(32) static constexpr float kSigns[8] = {1, 1, 1, 0, -1, -1, -1, 0};
  alignas(32) static constexpr std::uint32_t kOrder[8] = {0, 1, 2, 0, 3, 4, 5, 0};
  return Permute(n, Words8::Load(kOrder)) * Float8::LoadAligned(kSigns);
}
inline NodeLanes ToNodeLanes(LaneBox box) {
  alignas(32) static constexpr float kSigns[8] = {1, 1, 1, -1, -1, -1, 0, 0};
  alignas(32) static constexpr std::uint32_t kOrder[8] = {0, 1, 2, 4, 5, 6, 3, 3};
  return Permute(box, Words8::Load(kOrder)) * Float8::LoadAligned(kSigns);
}
inline NodeLanes ToNodeLanes(const Box& box) {
  return Join(Float4::Of(box.min.x, box.min.y, box.min.z, box.max.x), Float4::Of(box.max.y, box.max.z, 0, 0));
}
inline NodeLanes WithWords(NodeLanes n, std::uint32_t link, std::uint32_t size) {
  return WithLastWords(n, std::uint64_t{size} << 32U | link);
}

}  // namespace zp
