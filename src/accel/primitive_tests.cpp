#include "accel/primitive_tests.h"

#include "accel/curve_segment.h"
#include "geometry/geometry.h"

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
  const auto corner = [&](int i) { return ToLanes(part.positions[tetragon.vertex[i]] - ray.origin); };
  const TetragonHits<float> hits = TestTetragons<float>(corner(0), corner(1), corner(2), corner(3),
                                                        ToLanes(ray.direction), ray.t, 0.0f, kHitEpsilon);
  if (hits.mask == 0 || !IsVisible(tetragon.shader, ray)) return false;
  hit = TetragonHit(hits.t, hits.denominator, hits.side, tetragon.shader);
  return true;
}

float VertexRadius(const Part& part, std::uint32_t vertex) {
  if (part.scalarSets.empty()) return 0;
  const auto& radii = part.scalarSets.front().values;
  return vertex < radii.size() ? radii[vertex] : 0.0f;
}

namespace {

//   take  chooses the root
template <class Take>
bool TestSphere(const Part& part, std::uint32_t index, const RayRecord& ray, bool scaled, PrimitiveHit& hit,
                Take&& take) {
  if (!IsVisible(part.shader, ray)) return false;
  const std::uint32_t vertex = part.particles[index];
  const Vec3 d = part.positions[vertex] - ray.origin;
  const SphereHits<float> hits = TestSpheres<float>(ToLanes(d), VertexRadius(part, vertex),
                                                    ToLanes(ray.direction), InverseSquare(ray, scaled), 0.0f);
  if (hits.mask == 0 || !take(d, hits)) return false;
  hit.shader = part.shader;
  return true;
}

}  // namespace

bool TestParticle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit, float blur,
                  bool scaled) {
  return TestSphere(part, index, ray, scaled, hit, [&](Vec3 d, const SphereHits<float>& hits) {
    return TakeScaledSphere(scaled, d, hits.b, hits.discriminant, ray, blur, hit);
  });
}

bool TestShadowParticle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit,
                        bool roots) {
  return TestSphere(part, index, ray, true, hit, [&](Vec3 d, const SphereHits<float>& hits) {
    return TakeShadowSphere(roots, d, hits.b, hits.discriminant, ray, hit);
  });
}

CurveSegment MakeCurveSegment(const Part& part, std::uint32_t index) {
  const std::uint32_t first = part.cylinders[index];
  CurveSegment segment = {};
  segment.p0 = part.positions[first];
  segment.chord = segment.p0 - part.positions[first + 1];
  const float length = StrandTangentLength(segment.chord);
  const auto tangent = [&](std::uint32_t vertex) {
    return vertex < part.tangents.size() ? length * SafeNormalize(Unpack(part.tangents[vertex])) : Vec3{};
  };
  segment.tangent0 = tangent(first);
  segment.tangent1 = tangent(first + 1);
  segment.radius0 = VertexRadius(part, first);
  segment.radius1 = VertexRadius(part, first + 1);
  segment.primitive = index;
  return segment;
}

bool TestCylinder(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit) {
  if (!TestCurveSegment<Float8>(MakeCurveSegment(part, index), ray.origin, ray.direction, ray.t, hit))
    return false;
  hit.shader = part.shader;
  return IsVisible(part.shader, ray);
}

}  // namespace zp
