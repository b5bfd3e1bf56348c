#include "geometry/object.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"

namespace zp {

std::vector<Object> objectTable;
std::vector<InstanceMotion> instanceMotions;
std::vector<PerspectiveRow> perspectiveRows;

PackedVector Pack(Vec3 v) {
  const float squared = Dot(v, v);
  if (!std::isfinite(squared)) return {};  // what is no number, or too long for one, is no vector
  const float factor = SafeInverseLength(squared);
  const auto component = [&](float x) -> std::int8_t {
    const float scaled = x * 128.0f * factor;
    return static_cast<std::int8_t>(std::clamp(scaled, -127.0f, 127.0f));
  };
  return {component(v.x), component(v.y), component(v.z)};
}

namespace {

// The radius of a vertex; 0 where the Part has none for it.
float Radius(const Part& part, std::uint32_t vertex) {
  if (part.scalarSets.empty()) return 0;
  const auto& values = part.scalarSets.front().values;
  return vertex < values.size() ? values[vertex] : 0.0f;
}

void GrowAround(Box& box, Vec3 center, float radius) {
  const Vec3 reach = {radius, radius, radius};
  Grow(box, center - reach);
  Grow(box, center + reach);
}

// Four times the area, squared, is the radicand of Heron's rule. In double precision: its terms nearly
// cancel in a sliver.
float HeronArea(Vec3 p0, Vec3 p1, Vec3 p2) {
  const auto squared = [](Vec3 from, Vec3 to) {
    const double x = double{to.x} - from.x, y = double{to.y} - from.y, z = double{to.z} - from.z;
    return x * x + y * y + z * z;
  };
  const double a = squared(p0, p1), b = squared(p1, p2), c = squared(p2, p0);
  const double radicand = (a + b + c) * (a + b + c) - 2 * (a * a + b * b + c * c);
  if (settings.format >= 2) return static_cast<float>(0.25 * std::sqrt(std::max(radicand, 0.0)));
  return static_cast<float>(0.25 * (radicand > 1e-10 ? std::sqrt(radicand) : 1e-5));
}

}  // namespace

Box TriangleBox(const Part& part, std::uint32_t index) {
  Box box;
  for (const std::uint32_t v : part.triangles[index].vertex) Grow(box, part.positions[v]);
  return box;
}

Box TetragonBox(const Part& part, std::uint32_t index) {
  Box box;
  for (const std::uint32_t v : part.tetragons[index].vertex) Grow(box, part.positions[v]);
  return box;
}

Box ParticleBox(const Part& part, std::uint32_t index) {
  Box box;
  const std::uint32_t vertex = part.particles[index];
  GrowAround(box, part.positions[vertex], Radius(part, vertex));
  return box;
}

float StrandTangentLength(Vec3 chord) { return settings.format >= 2 ? std::sqrt(Dot(chord, chord)) : 1.0f; }

Vec3 CurvePoint(Vec3 p0, Vec3 p1, Vec3 tangent0, Vec3 tangent1, float t) {
  const float t2 = t * t, t3 = t2 * t;
  const float h1 = -(3 * t2 - 2 * t3), h2 = t3 - 2 * t2 + t, h3 = t3 - t2;
  return p0 + (p0 - p1) * h1 + tangent0 * h2 + tangent1 * h3;
}

Vec3 CurvePoint(const Part& part, std::uint32_t cylinder, float t) {
  const std::uint32_t first = part.cylinders[cylinder];
  const Vec3 p0 = part.positions[first], p1 = part.positions[first + 1];
  const float length = StrandTangentLength(p0 - p1);
  const auto tangent = [&](std::uint32_t vertex) {
    return vertex < part.tangents.size() ? length * SafeNormalize(Unpack(part.tangents[vertex])) : Vec3{};
  };
  return CurvePoint(p0, p1, tangent(first), tangent(first + 1), t);
}

Vec3 CurveAxis(const Part& part, std::uint32_t cylinder, float t) {
  constexpr float kHalfStep = 1.0f / 16.0f;  // of the eight straight pieces
  return UnitVector(CurvePoint(part, cylinder, std::min(t + kHalfStep, 1.0f)) -
                    CurvePoint(part, cylinder, std::max(t - kHalfStep, 0.0f)));
}

namespace {

// How far a segment reaches beyond its curve. Format 1 does not ask the second vertex.
float SegmentReach(float radius0, float radius1) {
  return settings.format >= 2 ? std::max(radius0, radius1) : radius0;
}

}  // namespace

Box CylinderBox(const Part& part, std::uint32_t index) {
  Box box;
  const std::uint32_t first = part.cylinders[index];
  const float radius = SegmentReach(Radius(part, first), Radius(part, first + 1));
  for (int i = 0; i <= 8; ++i)
    GrowAround(box, CurvePoint(part, index, static_cast<float>(i) * 0.125f), radius);
  return box;
}

Box PrimitiveBox(const Object& object, const PrimitiveRef& reference) {
  assert(Holds(object, reference));
  switch (reference.kind) {
    case kKindParticle:
      return ParticleBox(object.parts[reference.part], reference.index);
    case kKindCylinder:
      return CylinderBox(object.parts[reference.part], reference.index);
    case kKindTriangle:
      return TriangleBox(object.parts[reference.part], reference.index);
    case kKindTetragon:
      return TetragonBox(object.parts[reference.part], reference.index);
    case kKindInstance:
      return InstanceBox(object.instances[reference.index]);
    default:
      return {};
  }
}

float TriangleArea(const Part& part, std::uint32_t index) {
  const auto& v = part.triangles[index].vertex;
  const auto& p = part.positions;
  return HeronArea(p[v[0]], p[v[1]], p[v[2]]);
}

float TetragonArea(const Part& part, std::uint32_t index) {
  const auto& v = part.tetragons[index].vertex;
  const auto& p = part.positions;
  return HeronArea(p[v[0]], p[v[1]], p[v[2]]) + HeronArea(p[v[2]], p[v[3]], p[v[0]]);
}

}  // namespace zp
