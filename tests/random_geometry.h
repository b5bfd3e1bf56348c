// Heaps of seeded random primitives, and a flat loop over them: the oracle of all trees.

#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>

#include "accel/accel.h"
#include "accel/primitive_tests.h"
#include "core/settings.h"
#include "geometry/geometry.h"

namespace zp {

inline std::mt19937 generator(7);
inline float Uniform(float low, float high) {
  return std::uniform_real_distribution<float>(low, high)(generator);
}
inline Vec3 UniformPoint(float size) {
  return {Uniform(-size, size), Uniform(-size, size), Uniform(-size, size)};
}
inline Vec3 UniformDirection() {
  for (;;) {
    const Vec3 v = UniformPoint(1);
    if (Dot(v, v) > 0.01f && Dot(v, v) < 1) return SafeNormalize(v);
  }
}

inline RayRecord AimRay(Vec3 origin, Vec3 direction, float t = kFarthest) {
  RayRecord ray;
  ray.origin = origin;
  ray.direction = SafeNormalize(direction);
  ray.t = t;
  return ray;
}

inline std::uint32_t AddVertex(Part& part, Vec3 p) {
  part.positions.push_back(p);
  return static_cast<std::uint32_t>(part.positions.size() - 1);
}

inline void AddParticle(Part& part, Vec3 center, float radius) {
  part.particles.push_back(AddVertex(part, center));
  part.scalarSets[0].values.resize(part.positions.size(), radius);
}

inline void AddStrandVertex(Part& part, Vec3 p, Vec3 tangent, float radius) {
  AddVertex(part, p);
  part.tangents.push_back(Pack(tangent));
  part.scalarSets[0].values.push_back(radius);
}

using DrawShader = std::function<std::int32_t()>;
inline std::int32_t FirstShader() { return 0; }

// Triangles and rectangles by turns, scattered in a cube.
inline Part MakeSoup(int count, const DrawShader& drawShader = FirstShader, float size = 10) {
  Part part;
  for (int i = 0; i < count; ++i) {
    const Vec3 p = UniformPoint(size), u = UniformPoint(0.6f);
    const Vec3 v = Cross(SafeNormalize(u), UniformDirection());
    const std::uint32_t a = AddVertex(part, p), b = AddVertex(part, p + u), c = AddVertex(part, p + v);
    if (i % 2 == 0)
      part.triangles.push_back({{a, b, c}, drawShader()});
    else
      part.tetragons.push_back({{a, b, AddVertex(part, p + u + v), c}, drawShader()});
  }
  return part;
}

// `count` of each kind: faces, particles, and strands of a few segments have a Part each.
inline void FillSoup(Object& object, int count, const DrawShader& drawShader = FirstShader) {
  constexpr float kSize = 8;
  object.parts.resize(3);
  object.parts[0] = MakeSoup(2 * count, drawShader, kSize);
  for (Part& part : object.parts) part.shader = drawShader();
  Part& hair = object.parts[2];
  for (int i = 0; i < count; ++i) {
    AddParticle(object.parts[1], UniformPoint(kSize), Uniform(0.05f, 0.3f));
    Vec3 root = UniformPoint(kSize), way = UniformDirection();
    const float radius = Uniform(0.02f, 0.08f);
    const std::uint32_t segments = 1 + generator() % 4;
    for (std::uint32_t k = 0; k <= segments; ++k) {
      if (k < segments) hair.cylinders.push_back(static_cast<std::uint32_t>(hair.positions.size()));
      AddStrandVertex(hair, root, way, radius);
      way = SafeNormalize(way + 0.4f * UniformDirection());
      root += way;
    }
    hair.strandLengths.push_back(segments);
  }
}

// What a loop says of a ray. Where it is unclear, rounding decides.
struct LoopAnswer {
  float t = kFarthest;
  std::uint8_t kind = kKindUnset;
  std::int32_t primitive = kNone, level = 0;
  Vec3 throughput = {1, 1, 1};  // of a shadow ray as long as ray.t
  bool front = false, unclear = false;
};

// Adds the primitives of one Object. pass(shader, front, cosine) is what a surface lets through.
template <class Pass>
void AskLoop(const Object& object, const RayRecord& ray, bool shadow, std::int32_t level, const Pass& pass,
             LoopAnswer& answer) {
  constexpr float kEdge = 1e-4f;  // in barycentric coordinates
  for (const Part& part : object.parts) {
    PrimitiveHit hit;
    const Vec3& b = hit.barycentric;
    const auto at = [&](std::uint32_t vertex) { return part.positions[vertex]; };
    const auto take = [&](std::uint8_t kind, std::uint32_t i, bool unclear, float cosine) {
      const auto close = [&](float t) { return std::abs(hit.t - t) < 1e-3f; };
      answer.unclear |= unclear || close(answer.t) || close(ray.t) || close(0);
      answer.throughput *= pass(hit.shader, hit.denominator < 0, cosine);
      if (hit.t >= answer.t) return;
      answer = {
          hit.t,         kind, static_cast<std::int32_t>(i), level, answer.throughput, hit.denominator < 0,
          answer.unclear};
    };
    const auto cosine = [&](Vec3 u, Vec3 v) { return Dot(ray.direction, SafeNormalize(Cross(u, v))); };
    for (std::uint32_t i = 0; i < part.triangles.size(); ++i) {
      if (!TestTriangle(part, i, ray, hit)) continue;
      const auto& v = part.triangles[i].vertex;
      take(kKindTriangle, i, std::min({b.x, b.y, b.z}) < kEdge,
           cosine(at(v[1]) - at(v[0]), at(v[2]) - at(v[0])));
    }
    for (std::uint32_t i = 0; i < part.tetragons.size(); ++i) {
      if (!TestTetragon(part, i, ray, hit)) continue;
      const auto& v = part.tetragons[i].vertex;
      take(kKindTetragon, i, std::min({b.x, b.y, 1 - b.x, 1 - b.y}) < kEdge,
           cosine(at(v[2]) - at(v[0]), at(v[3]) - at(v[1])));
    }
    for (std::uint32_t i = 0; i < part.cylinders.size(); ++i) {
      if (!TestCylinder(part, i, ray, hit)) continue;
      hit.shader = part.shader;
      const Box box = CylinderBox(part, i);  // what sticks out at bends may be lost
      const Vec3 p = ray.origin + hit.t * ray.direction;
      bool unclear = std::abs(b.x) > 0.99f;
      for (int a = 0; a < 3; ++a) unclear |= !(box.min[a] < p[a] && p[a] < box.max[a]);
      take(kKindCylinder, i, unclear, hit.denominator);
    }
    for (std::uint32_t i = 0; i < part.particles.size(); ++i) {
      const Vec3 d = at(part.particles[i]) - ray.origin;
      const float middle = Dot(d, ray.direction), radius = part.scalarSets[0].values[part.particles[i]];
      const float beside = SafeLength(d - middle * ray.direction);
      // A shadow ray's roots may lie outside of the sphere's box: met only if the ray ends behind that.
      const bool endsNear = shadow && beside < radius && std::abs(middle - ray.t) < radius;
      answer.unclear |= endsNear || std::abs(beside - radius) < 0.01f;
      if (shadow ? TestShadowParticle(part, i, ray, hit, settings.format >= 2)
                 : TestParticle(part, i, ray, hit)) {
        hit.shader = part.shader;
        take(kKindParticle, i, false, Dot(ray.direction, SafeNormalize(b)));
      }
    }
  }
}

}  // namespace zp
