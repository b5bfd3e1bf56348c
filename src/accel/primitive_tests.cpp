#include "accel/primitive_tests.h"

namespace zp {

bool TestTriangle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit) {
  const Triangle& triangle = part.triangles[index];
  const Vec3 p0 = part.positions[triangle.vertex[0]];
  const Vec3 e1 = part.positions[triangle.vertex[1]] - p0;
  const Vec3 e2 = part.positions[triangle.vertex[2]] - p0;
  const TriangleHits<float> hits =
      TestTriangles<float>(ToLanes(p0 - ray.origin), ToLanes(e1), ToLanes(e2), ToLanes(ray.direction), ray.t,
                           0.0f, 1.0f, kHitEpsilon);
  if (hits.mask == 0 || !IsVisible(triangle.shader, ray)) return false;
  hit.t = hits.t;
  hit.denominator = hits.denominator;
  hit.barycentric = {(1.0f - hits.weight1) - hits.weight2, hits.weight1, hits.weight2};
  hit.shader = triangle.shader;
  return true;
}

bool TestTetragon(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit) {
  const Tetragon& tetragon = part.tetragons[index];
  const Vec3 a = part.positions[tetragon.vertex[0]] - ray.origin;
  const Vec3 b = part.positions[tetragon.vertex[1]] - ray.origin;
  const Vec3 c = part.positions[tetragon.vertex[2]] - ray.origin;
  const Vec3 d = part.positions[tetragon.vertex[3]] - ray.origin;
  const Vec3 n = Cross(c - a, d - b);
  hit.denominator = Dot(n, ray.direction);
  hit.t = Dot(n, a) / hit.denominator;
  if (!(hit.t >= kHitEpsilon) || !(hit.t <= ray.t - kHitEpsilon)) return false;
  const float w0 = Dot(ray.direction, Cross(a, b)), w1 = Dot(ray.direction, Cross(b, c));
  const float w2 = Dot(ray.direction, Cross(c, d)), w3 = Dot(ray.direction, Cross(d, a));
  if (hit.denominator > 0 && (w0 < 0 || w1 < 0 || w2 < 0 || w3 < 0)) return false;
  if (hit.denominator < 0 && (w0 > 0 || w1 > 0 || w2 > 0 || w3 > 0)) return false;
  if (!IsVisible(tetragon.shader, ray)) return false;
  hit.barycentric = {w0 / (w0 + w2), w3 / (w1 + w3), 0};
  hit.shader = tetragon.shader;
  return true;
}

namespace {

template <bool kShadow>
bool TestSphere(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit) {
  if (!IsVisible(part.shader, ray)) return false;
  const std::uint32_t vertex = part.particles[index];
  const auto& radii = part.scalarSets[0].values;
  const float radius = vertex < radii.size() ? radii[vertex] : 0.0f;
  const Vec3 d = part.positions[vertex] - ray.origin;
  const float b = Dot(d, ray.direction);
  const float discriminant = b * b - Dot(d, d) + radius * radius;
  if (!(discriminant >= 0)) return false;
  const float s = kShadow ? discriminant : SafeSqrt(discriminant);
  hit.t = b - s;
  if (!(hit.t > kHitEpsilon && kHitEpsilon + ray.t > hit.t)) {
    hit.t = b + s;
    if (!(hit.t > kHitEpsilon && kHitEpsilon + ray.t > hit.t)) return false;
  }
  hit.denominator = -1;
  hit.barycentric = hit.t * ray.direction - d;
  hit.shader = part.shader;
  return true;
}

}  // namespace

bool TestParticle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit) {
  return TestSphere<false>(part, index, ray, hit);
}

bool TestShadowParticle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit) {
  return TestSphere<true>(part, index, ray, hit);
}

}  // namespace zp
