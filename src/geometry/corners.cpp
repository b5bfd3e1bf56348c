// Which vertices a hit lies between.

#include <algorithm>
#include <cassert>

#include "geometry/geometry.h"
#include "geometry/validate.h"

namespace zp {

Corners HitCorners(const Part& part, std::uint8_t kind, std::uint32_t index, Vec3 barycentric) {
  assert(index < PrimitiveCount(part, kind) || kind < kKindParticle || kind > kKindTetragon);
  const Vec3 b = barycentric;
  switch (kind) {
    case kKindParticle:
      return {{part.particles[index], 0, 0, 0}, {1, 0, 0, 0}, 1};
    case kKindCylinder: {
      const std::uint32_t first = part.cylinders[index];
      return {{first, first + 1, 0, 0}, {1 - b.z, b.z, 0, 0}, 2};
    }
    case kKindTriangle: {
      const auto& v = part.triangles[index].vertex;
      return {{v[0], v[1], v[2], 0}, {b.x, b.y, b.z, 0}, 3};
    }
    case kKindTetragon: {
      const auto& v = part.tetragons[index].vertex;
      return {
          {v[0], v[1], v[2], v[3]}, {(1 - b.x) * (1 - b.y), (1 - b.x) * b.y, b.x * b.y, b.x * (1 - b.y)}, 4};
    }
    default:
      return {};
  }
}

namespace {

bool FaceVectors(const CornerVectors& vectors, std::size_t face, PackedVector (&of)[4]) {
  const PackedVector own = vectors.values[face];
  if (own != kVaried) {
    std::fill_n(of, 4, own);
    return !IsZero(own);
  }
  const auto before = [](const CornerVectors::Varied& v, std::size_t number) { return v.face < number; };
  const auto varied = std::lower_bound(vectors.varied.begin(), vectors.varied.end(), face, before);
  std::copy_n(varied->of, 4, of);
  return true;
}

bool VectorsOf(const Corners& corners, const CornerVectors& faces, const std::vector<PackedVector>& vertices,
               std::size_t face, PackedVector (&of)[4]) {
  bool all = true;
  if (face < faces.values.size()) {
    all = FaceVectors(faces, face, of);
  } else {
    for (int i = 0; i < corners.count; ++i) {
      if (corners.vertex[i] >= vertices.size()) return false;
      of[i] = vertices[corners.vertex[i]];
    }
  }
  for (int i = 0; i < corners.count; ++i) all = all && !IsZero(of[i]);
  return all;
}

}  // namespace

bool CornerNormals(const Corners& corners, const Part& part, std::uint8_t kind, std::uint32_t index,
                   PackedVector (&of)[4]) {
  return VectorsOf(corners, part.cornerNormals, part.normals, FaceNumber(part, kind, index), of);
}

bool CornerTangents(const Corners& corners, const Part& part, std::uint8_t kind, std::uint32_t index,
                    PackedVector (&of)[4]) {
  return VectorsOf(corners, part.cornerTangents, part.tangents, FaceNumber(part, kind, index), of);
}

Vec2 FirstUv(const Corners& corners, const Part& part) {
  if (part.uvSets.empty()) return {};
  const std::vector<Vec2>& values = part.uvSets[0].values;
  Vec2 uv;
  for (int i = 0; i < corners.count; ++i) {
    if (corners.vertex[i] >= values.size()) return {};
    uv.x += corners.weight[i] * values[corners.vertex[i]].x;
    uv.y += corners.weight[i] * values[corners.vertex[i]].y;
  }
  return uv;
}

void TakeNamedUvs(const Corners& corners, const Part& part, SurfaceUv& uv) {
  uv.sets = part.namedUvs.data();
  uv.count = corners.count;
  std::copy_n(corners.vertex, 4, uv.vertex);
  std::copy_n(corners.weight, 4, uv.weight);
}

const VertexSet<Vec2>& UvSetOf(const Part& part, std::int32_t set) {
  if (set > 0)
    for (const VertexSet<Vec2>& candidate : part.uvSets)
      if (candidate.name == uvSetNames[static_cast<std::size_t>(set - 1)] && !candidate.values.empty())
        return candidate;
  return part.uvSets.front();
}

}  // namespace zp
