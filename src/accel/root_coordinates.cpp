// Where strands grow from: the texture coordinates of the surface under each root.

#include <algorithm>
#include <initializer_list>
#include <span>
#include <vector>

#include "accel/accel.h"
#include "accel/nearest_point.h"
#include "accel/tree.h"
#include "core/stop.h"
#include "core/threads.h"

namespace zp {
namespace {

bool AllOnOneSide(std::initializer_list<float> volumes) {
  bool positive = true, negative = true;
  for (const float v : volumes) {
    positive = positive && v > 0;
    negative = negative && v < 0;
  }
  return positive || negative;
}

Vec2 UvOf(const Part& part, std::uint8_t kind, std::uint32_t index, Vec3 barycentric) {
  return CornerUv(HitCorners(part, kind, index, barycentric), part);
}

bool BoxContains(const Box& box, Vec3 p) {
  for (int a = 0; a < 3; ++a)
    if (!(box.min[a] <= p[a] && p[a] <= box.max[a])) return false;
  return true;
}

struct RootSearch {
  const Object& object;
  Vec3 root;
  float distance = kFarthest;
  Vec2 uv = {};

  void Consider(const NearestPoint& point) {
    if (!(point.distance < distance)) return;
    distance = point.distance;
    uv = point.uv;
  }

  void ConsiderLeaf(std::span<const PrimitiveRef> leaf) {
    for (const PrimitiveRef& reference : leaf) {
      const Part* part = reference.kind == kKindInstance ? nullptr : &object.parts[reference.part];
      if (reference.kind == kKindTriangle) Consider(NearestOnTriangle(*part, reference.index, root));
      if (reference.kind == kKindTetragon) Consider(NearestOnTetragon(*part, reference.index, root));
    }
  }

  // Of a leaf inside a merged subtree, which has no packed node; the boxes around it contain more.
  bool IsInside(std::span<const PrimitiveRef> leaf) const {
    Box box;
    for (const PrimitiveRef& reference : leaf) Grow(box, PrimitiveBox(object, reference));
    return BoxContains(box, root);
  }

  //   packed  the same node, or null inside a merged subtree
  void Walk(std::uint32_t index, const PackedNode* packed) {
    const WideNode& node = object.wideNodes[index];
    for (int i = 0; i < 8; ++i) {
      if (node.child[i] == kUnusedSlot || (packed && !BoxContains(SlotBox(*packed, i), root))) continue;
      const std::span leaf(object.compactReferences.data() + (node.count[i] != 0 ? node.child[i] : 0),
                           node.count[i]);
      if (node.count[i] == 0)
        Walk(node.child[i],
             packed && packed->word[i] == 0 ? &object.packed->nodes[packed->child[i]] : nullptr);
      else if (packed || IsInside(leaf))
        ConsiderLeaf(leaf);
    }
  }
};

}  // namespace

NearestPoint NearestOnTriangle(const Part& part, std::uint32_t index, Vec3 query) {
  const auto& vertex = part.triangles[index].vertex;
  const Vec3 a = part.positions[vertex[0]] - query, b = part.positions[vertex[1]] - query;
  const Vec3 c = part.positions[vertex[2]] - query;
  const Vec3 n = SafeNormalize(Cross(b - a, c - a));
  const float w0 = Dot(n, Cross(b, c)), w1 = Dot(n, Cross(c, a)), w2 = Dot(n, Cross(a, b));
  if (!AllOnOneSide({w0, w1, w2})) return {};
  const Vec3 weights = Vec3{w0, w1, w2} / (w0 + w1 + w2);
  return {SafeLength(n * Dot(n, a)), UvOf(part, kKindTriangle, index, weights)};
}

NearestPoint NearestOnTetragon(const Part& part, std::uint32_t index, Vec3 query) {
  const auto& vertex = part.tetragons[index].vertex;
  const Vec3 a = part.positions[vertex[0]] - query, b = part.positions[vertex[1]] - query;
  const Vec3 c = part.positions[vertex[2]] - query, d = part.positions[vertex[3]] - query;
  const Vec3 n = -Cross(c - a, d - b);
  const float w0 = Dot(n, Cross(a, b)), w1 = Dot(n, Cross(b, c));
  const float w2 = Dot(n, Cross(c, d)), w3 = Dot(n, Cross(d, a));
  if (!AllOnOneSide({w0, w1, w2, w3})) return {};
  return {SafeLength(query - n * Dot(n, a)),
          UvOf(part, kKindTetragon, index, {w0 / (w0 + w2), w3 / (w1 + w3), 0})};
}

void TransferRootCoordinates(Object& object) {
  bool surfaces = false;
  for (const Part& part : object.parts)
    surfaces = surfaces || !part.triangles.empty() || !part.tetragons.empty();
  if (!surfaces || object.wideNodes.empty() || object.packed == nullptr) return;
  for (Part& part : object.parts) {
    if (part.strandLengths.empty() || part.uvSets.empty()) continue;
    // Strands stand one behind another; one of n segments has n + 1 vertices. What the lengths promise beyond
    // the positions is not there.
    const std::size_t vertexCount = part.positions.size();
    std::vector<std::size_t> roots = {0};
    for (const std::uint32_t length : part.strandLengths) {
      const std::size_t end = roots.back() + length + 1;
      if (end >= vertexCount) break;
      roots.push_back(end);
    }
    if (vertexCount == 0) continue;
    const std::size_t strands = std::min(roots.size(), part.strandLengths.size());
    std::vector<Vec2> found(strands);
#pragma omp parallel for schedule(dynamic, 256) if (IsWorthThreads(strands, 1000))
    for (std::size_t i = 0; i < strands; ++i) {
      RootSearch search{object, part.positions[roots[i]]};
      if (!Stopping()) search.Walk(0, &object.packed->nodes[0]);
      found[i] = search.uv;
    }
    std::vector<Vec2>& uvs = part.uvSets[0].values;
    uvs.resize(vertexCount);
    for (std::size_t i = 0; i < strands; ++i) {
      const std::size_t end = std::min(roots[i] + part.strandLengths[i] + 1, vertexCount);
      std::fill(uvs.begin() + static_cast<std::ptrdiff_t>(roots[i]),
                uvs.begin() + static_cast<std::ptrdiff_t>(end), found[i]);
    }
  }
}

}  // namespace zp
