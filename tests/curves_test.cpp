// Strands and particles: the lanes of a curve against its dense subdivision, spheres against closed forms,
// and all kinds together in every walk; where strands stand on surfaces; what moves between passes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "accel/accel.h"
#include "accel/curve_segment.h"
#include "accel/nearest_point.h"
#include "accel/tree.h"
#include "geometry/geometry.h"
#include "render_fixture.h"

namespace zp {
namespace {

std::mt19937 generator(5);
float Uniform(float low, float high) { return std::uniform_real_distribution<float>(low, high)(generator); }
Vec3 UniformPoint(float size) { return {Uniform(-size, size), Uniform(-size, size), Uniform(-size, size)}; }
Vec3 UniformDirection() {
  for (;;) {
    const Vec3 v = UniformPoint(1);
    if (Dot(v, v) > 0.01f && Dot(v, v) < 1) return SafeNormalize(v);
  }
}

RayRecord MakeRay(Vec3 origin, Vec3 direction) {
  RayRecord ray;
  ray.origin = origin;
  ray.direction = SafeNormalize(direction);
  return ray;
}

void AddVertex(Part& part, Vec3 p, Vec3 tangent, float radius) {
  part.positions.push_back(p);
  part.tangents.push_back(Pack(tangent));
  part.scalarSets[0].values.push_back(radius);
}

// A segment about one unit long that bends moderately.
void AddSegment(Part& part, Vec3 center, float radius0, float radius1) {
  const Vec3 axis = UniformDirection();
  const auto first = static_cast<std::uint32_t>(part.positions.size());
  const float half = Uniform(0.35f, 0.6f);
  AddVertex(part, center - half * axis, axis + 0.5f * UniformDirection(), radius0);
  AddVertex(part, center + half * axis, axis + 0.5f * UniformDirection(), radius1);
  part.cylinders.push_back(first);
}

class Curves : public RenderTest {
 protected:
  // One Shader that every ray sees and no shadow ray passes, unless a test adds others.
  static std::int32_t AddPlain() { return AddShader("plain", kWhite, kBlack); }
};

// A curve cut into thousands of points.
struct DenseCurve {
  static constexpr int kSteps = 2000;
  std::vector<Vec3> points;
  float bend = 0;  // how far the curve leaves the chords of its eight pieces

  DenseCurve(const Part& part, std::uint32_t cylinder) {
    for (int i = 0; i <= kSteps; ++i)
      points.push_back(CurvePoint(part, cylinder, static_cast<float>(i) / kSteps));
    for (std::size_t k = 0; k < 8; ++k) {
      const Vec3 chord = 0.5f * (points[k * kSteps / 8] + points[(k + 1) * kSteps / 8]);
      bend = std::max(bend, SafeLength(points[k * kSteps / 8 + kSteps / 16] - chord));
    }
  }
};

struct Approach {
  float distance = kFarthest, along = 0;
  float t = 0;  // place on the ray
  float sine = 0;
  bool single = true;  // the ray comes as near as `limit` in one place only
};

Approach ClosestApproach(const DenseCurve& curve, const RayRecord& ray, float limit) {
  Approach best;
  std::size_t closest = 0;
  float first = kFarthest, last = -kFarthest;
  for (std::size_t i = 0; i < curve.points.size(); ++i) {
    const Vec3 p = curve.points[i] - ray.origin;
    const float b = Dot(p, ray.direction);
    const Vec3 beside = p - b * ray.direction;
    const float distance = std::sqrt(Dot(beside, beside));
    if (distance < limit) {
      first = std::min(first, b);
      last = std::max(last, b);
    }
    if (distance >= best.distance) continue;
    best.distance = distance;
    best.t = b;
    closest = i;
  }
  best.along = static_cast<float>(closest) / DenseCurve::kSteps;
  const std::size_t from = closest < 10 ? 0 : closest - 10;
  const Vec3 axis = curve.points[std::min(closest + 10, curve.points.size() - 1)] - curve.points[from];
  best.sine = SafeLength(Cross(UnitVector(axis), ray.direction));
  best.single = last - first < 2.5f * limit / best.sine;
  return best;
}

TEST_F(Curves, LanesAgreeWithADenseSubdivision) {
  int hits = 0, misses = 0, joints = 0, jointMisses = 0;
  for (int i = 0; i < 8000; ++i) {
    Part part;
    const float radius = Uniform(0.02f, 0.1f);
    AddSegment(part, UniformPoint(3), radius, radius);
    const DenseCurve curve(part, 0);
    const Vec3 origin = UniformPoint(6);
    const Vec3 target =
        CurvePoint(part, 0, Uniform(0.05f, 0.95f)) + Uniform(0, 3 * radius) * UniformDirection();
    const RayRecord ray = MakeRay(origin, target - origin);
    const float slack = 1.5f * curve.bend;
    const Approach expected = ClosestApproach(curve, ray, radius + slack);
    // Along its axis a cylinder has ends, which the planes between pieces make rough.
    if (expected.sine < 0.5f || expected.along < 0.05f || expected.along > 0.95f || expected.t < 1) continue;
    PrimitiveHit hit;
    const bool met = TestCylinder(part, 0, ray, hit);
    if (expected.distance > radius + slack) {
      EXPECT_FALSE(met) << i;
      ++misses;
      continue;
    }
    if (!expected.single || expected.distance > 0.9f * radius - slack) continue;
    // Pieces meet at angles: a narrow gap opens where both end planes cut the ray off.
    const float piece = 8 * expected.along, joint = std::abs(piece - std::round(piece));
    if (joint < 0.3f) {
      ++joints;
      jointMisses += met ? 0 : 1;
    } else {
      EXPECT_TRUE(met) << i;
    }
    if (!met) continue;
    ++hits;
    EXPECT_NEAR(hit.t, expected.t, (slack + 0.15f * radius) / (expected.sine * expected.sine)) << i;
    EXPECT_NEAR(hit.barycentric.z, expected.along, 0.125f + radius) << i;
    EXPECT_NEAR(std::abs(hit.barycentric.x) * radius, expected.distance, slack + 1e-5f) << i;
    EXPECT_NEAR(-hit.denominator, expected.sine, 0.15f) << i;
    const Vec3 p = ray.origin + hit.t * ray.direction;
    const Box box = CylinderBox(part, 0);
    for (int a = 0; a < 3; ++a) {
      EXPECT_GE(p[a], box.min[a] - 1e-5f) << i;
      EXPECT_LE(p[a], box.max[a] + 1e-5f) << i;
    }
  }
  EXPECT_GT(hits, 1500);
  EXPECT_GT(misses, 1500);
  EXPECT_LT(jointMisses, joints / 20);
}

// The offset has a sign: the side on which the axis passes the ray. The radius is a ramp of sevenths.
TEST_F(Curves, StraightSegmentsGiveClosedForms) {
  Part part;
  AddVertex(part, {0, 0, 0}, {1, 0, 0}, 0.1f);
  AddVertex(part, {1, 0, 0}, {1, 0, 0}, 0.8f);
  part.cylinders.push_back(0);
  PrimitiveHit hit;
  for (int i = 0; i < 8; ++i) {
    const float radius = 0.1f + 0.7f * static_cast<float>(i) / 7;
    const float x = (static_cast<float>(i) + 0.5f) / 8;
    for (float y : {0.95f * radius, -0.95f * radius}) {
      ASSERT_TRUE(TestCylinder(part, 0, MakeRay({x, y, 3}, {0, 0, -1}), hit)) << i;
      EXPECT_NEAR(hit.t, 3, 1e-6f);
      EXPECT_EQ(hit.barycentric.z, x);
      EXPECT_NEAR(hit.barycentric.x, y > 0 ? 0.95f : -0.95f, 1e-5f);
      EXPECT_NEAR(hit.denominator, -1, 1e-6f);
    }
    EXPECT_FALSE(TestCylinder(part, 0, MakeRay({x, 1.02f * radius, 3}, {0, 0, -1}), hit)) << i;
  }
  EXPECT_FALSE(TestCylinder(part, 0, MakeRay({-0.01f, 0, 3}, {0, 0, -1}), hit));
  EXPECT_FALSE(TestCylinder(part, 0, MakeRay({1.01f, 0, 3}, {0, 0, -1}), hit));
  EXPECT_FALSE(TestCylinder(part, 0, MakeRay({0.5f, 0, -3}, {0, 0, -1}), hit));  // behind
  EXPECT_FALSE(TestCylinder(part, 0, MakeRay({-3, 0, 0}, {1, 0, 0}), hit));      // along the axis
  RayRecord ray = MakeRay({0.3f, 0, 3}, {0, 0, -1});
  ray.t = 3;
  EXPECT_FALSE(TestCylinder(part, 0, ray, hit));
  ray.t = 3.00001f;
  EXPECT_TRUE(TestCylinder(part, 0, ray, hit));
  // Radii and tangents that are not there, or negative, are never met.
  part.scalarSets[0].values = {-0.1f, -0.1f};
  EXPECT_FALSE(TestCylinder(part, 0, ray, hit));
  part.scalarSets.clear();
  EXPECT_FALSE(TestCylinder(part, 0, ray, hit));
  part.scalarSets = {{"radius", {0.1f, 0.1f}}};
  part.tangents.clear();
  EXPECT_FALSE(TestCylinder(part, 0, ray, hit));
}

TEST_F(Curves, LanesAgreeWithTheirPlainTwin) {
  int hits = 0;
  for (int i = 0; i < 20000; ++i) {
    Part part;
    AddSegment(part, UniformPoint(1), Uniform(-0.1f, 0.3f), Uniform(0, 0.3f));
    if (i % 50 == 0) part.positions[1] = part.positions[0];
    if (i % 70 == 0) part.tangents[0] = {};
    CurveSegment segment = MakeCurveSegment(part, 0);
    if (i % 90 == 0) segment.p0.x = std::nanf("");
    const Vec3 origin = UniformPoint(2), direction = SafeNormalize(UniformPoint(0.5f) - origin);
    PrimitiveHit lanes, plain;
    const bool met = TestCurveSegment<Float8>(segment, origin, direction, kFarthest, lanes);
    ASSERT_EQ(met, TestCurveSegment<PlainLanes<8>>(segment, origin, direction, kFarthest, plain)) << i;
    if (!met) continue;
    ++hits;
    EXPECT_EQ(lanes.t, plain.t);
    EXPECT_EQ(lanes.denominator, plain.denominator);
    EXPECT_EQ(lanes.barycentric, plain.barycentric);
  }
  EXPECT_GT(hits, 1000);
}

void AddParticle(Part& part, Vec3 center, float radius) {
  part.particles.push_back(static_cast<std::uint32_t>(part.positions.size()));
  part.positions.push_back(center);
  part.scalarSets[0].values.push_back(radius);
}

TEST_F(Curves, ParticlesAreSpheresFromOutsideAndInside) {
  AddPlain();
  const Vec3 center = {30, -20, 10};
  const float radius = 0.5f;
  Part& part = Geometry();
  part.shader = 0;
  AddParticle(part, center, radius);
  Initialize();
  for (int i = 0; i < 2000; ++i) {
    const bool inside = i % 2 == 0;
    const Vec3 origin =
        center + UniformDirection() * (inside ? Uniform(0, 0.9f) * radius : Uniform(0.6f, 40));
    const Vec3 target = center + UniformDirection() * (Uniform(0, 1.5f) * radius);
    if (Dot(target - origin, target - origin) < 1e-4f) continue;
    RayRecord ray = MakeRay(origin, target - origin);
    // In double precision.
    const double d[3] = {double{center.x} - origin.x, double{center.y} - origin.y,
                         double{center.z} - origin.z};
    const double way[3] = {double{ray.direction.x}, double{ray.direction.y}, double{ray.direction.z}};
    const double length = std::sqrt(way[0] * way[0] + way[1] * way[1] + way[2] * way[2]);
    const double b = (d[0] * way[0] + d[1] * way[1] + d[2] * way[2]) / length;
    const double discriminant = b * b - (d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) + double{radius} * radius;
    if (std::abs(discriminant) < 1e-3) continue;
    const bool expected = discriminant > 0 && (inside || b > 0);
    ASSERT_EQ(Trace(ray), expected) << i;
    if (!expected) continue;
    EXPECT_NEAR(ray.t, inside ? b + std::sqrt(discriminant) : b - std::sqrt(discriminant), 1e-4);
    EXPECT_EQ(ray.frontFace, !inside);
    EXPECT_NEAR(SafeLength(ray.barycentric), radius, 1e-4f);
    const Vec3 p = ray.origin + ray.t * ray.direction - center;
    for (int a = 0; a < 3; ++a) EXPECT_NEAR(p[a], ray.barycentric[a], 1e-5f);
    // From the hit: inwards to the other side, whatever the event; outwards to nothing.
    for (std::uint8_t event = kEventLambertian; event <= kEventSpecularRefraction; ++event) {
      RayRecord next = MakeRay(ray.origin + ray.t * ray.direction, UniformDirection());
      next.parentPart = ray.part;
      next.parentKind = ray.kind;
      next.parentPrimitive = ray.primitive;
      next.parentPlace = ray.hitPlace;
      next.event = event;
      const float cosine = Dot(next.direction, ray.barycentric) / radius;
      if (std::abs(cosine) < 0.01f) continue;
      ASSERT_EQ(Trace(next), cosine < 0) << cosine;
      if (cosine > 0) continue;
      EXPECT_NEAR(next.t, -2 * cosine * radius, 1e-3f);
      EXPECT_FALSE(next.frontFace);
    }
    RayRecord probe = MakeRay(origin, target - origin);
    EXPECT_FALSE(TraceSurfaces(probe));
  }
}

// The roots of shadow rays are b -+ the discriminant itself.
TEST_F(Curves, ShadowRaysMeetParticlesByTheirDiscriminant) {
  AddPlain();
  Part& part = Geometry();
  part.shader = 0;
  AddParticle(part, kBlack, 2);  // discriminant 4 on the axis, 4 - y^2 beside it
  Initialize();
  for (int pass : {0, 1}) {
    settings.samplePass = pass;
    const auto blocked = [](Vec3 origin, float t, bool parent = false) {
      RayRecord ray = MakeRay(origin, {1, 0, 0});
      ray.t = t;
      if (parent) {
        ray.parentPart = &Geometry();
        ray.parentKind = kKindParticle;
        ray.parentPrimitive = 0;
      }
      return Occlude(ray);
    };
    EXPECT_TRUE(blocked({-10, 0, 0}, 20));
    EXPECT_FALSE(blocked({-10, 0, 0}, 5.9f));  // the root is at 6, the sphere at 8
    EXPECT_TRUE(blocked({-10, 0, 0}, 8.1f));
    EXPECT_FALSE(blocked({-10, 1.99f, 0}, 9.9f));  // 9.96, the sphere at 9.8
    EXPECT_TRUE(blocked({-10, 1.99f, 0}, 9.98f));
    EXPECT_FALSE(blocked({-10, 2.01f, 0}, 20));
    EXPECT_TRUE(blocked({-1, 0, 0}, 20));  // from inside: roots -3 and 5
    EXPECT_FALSE(blocked({-1, 0, 0}, 4.9f));
    EXPECT_FALSE(blocked({-1, 0, 0}, 20, true));
    EXPECT_FALSE(blocked({3, 0, 0}, 0.9f));  // from outside, away: roots -7 and 1
  }
}

TEST_F(Curves, ParticlesInScaledInstancesCastShadows) {
  AddPlain();
  Part& part = Geometry();
  part.shader = 0;
  AddParticle(part, kBlack, 0.5f);
  objectTable.emplace_back();
  Instance& instance = objectTable[1].instances.emplace_back();
  instance.object = 0;
  for (int a = 0; a < 3; ++a) instance.matrix.m[a][a] = 2;
  Initialize();
  for (float y : {0.0f, 0.9f, 1.05f}) {
    RayRecord ray = MakeRay({-10, y, 0}, {1, 0, 0});
    ray.t = 20;
    EXPECT_EQ(Occlude(ray), y < 1) << y;
  }
}

// A quarter of each kind. Strands are a few segments long.
void FillSoup(Object& object, std::int32_t shader, int count) {
  object.parts.assign(3, {});
  for (Part& part : object.parts) part.shader = shader;
  for (int i = 0; i < count; ++i) {
    const Vec3 p = UniformPoint(8), u = UniformPoint(0.6f),
               v = 0.6f * Cross(SafeNormalize(u), UniformDirection());
    AddTetragon(object.parts[0], {p, p + u, p + u + v, p + v}, shader);
    const auto first = static_cast<std::uint32_t>(object.parts[0].positions.size());
    const Vec3 q = UniformPoint(8);
    for (int k = 0; k < 3; ++k) object.parts[0].positions.push_back(q + UniformPoint(0.5f));
    object.parts[0].triangles.push_back({{first, first + 1, first + 2}, shader});
    AddParticle(object.parts[1], UniformPoint(8), Uniform(0.05f, 0.3f));
    Part& hair = object.parts[2];
    Vec3 root = UniformPoint(8), way = UniformDirection();
    const auto vertex = static_cast<std::uint32_t>(hair.positions.size());
    const float radius = Uniform(0.02f, 0.08f);
    const std::uint32_t segments = 1 + generator() % 4;
    for (std::uint32_t k = 0; k <= segments; ++k) {
      AddVertex(hair, root, way, radius);
      if (k < segments) hair.cylinders.push_back(vertex + k);
      way = SafeNormalize(way + 0.4f * UniformDirection());
      root += way;
    }
    hair.strandLengths.push_back(segments);
  }
}

Mat4 Placement(float angle, Vec3 move) {
  const float c = std::cos(angle), s = std::sin(angle);
  return {{{c, -s, 0, move.x}, {s, c, 0, move.y}, {0, 0, 1, move.z}, {0, 0, 0, 1}}};
}

struct LoopHit {
  float t = kFarthest;
  std::uint8_t kind = kKindUnset;
  std::int32_t primitive = kNone;
  bool front = false;
  int blocking = 0;      // of shadow rays: how many surfaces there are
  bool unclear = false;  // rounding decides
};

enum class Loop { kNearest, kSurfaces, kShadow };

void LoopOver(const Object& object, RayRecord ray, Loop loop, LoopHit& best) {
  for (const Part& part : object.parts) {
    const auto consider = [&](bool met, const PrimitiveHit& hit, std::uint8_t kind, std::uint32_t i) {
      if (!met) return;
      const Vec3 b = hit.barycentric, p = ray.origin + hit.t * ray.direction;
      if (kind == kKindTriangle) best.unclear |= std::min({b.x, b.y, b.z}) < 1e-4f;
      if (kind == kKindTetragon) best.unclear |= std::min({b.x, b.y, 1 - b.x, 1 - b.y}) < 1e-4f;
      if (kind == kKindParticle) best.unclear |= std::abs(Dot(b, ray.direction)) < 0.01f;
      if (kind == kKindCylinder) {
        const Box box = CylinderBox(part, i);  // what sticks out at bends may be lost
        for (int a = 0; a < 3; ++a) best.unclear |= !(box.min[a] < p[a] && p[a] < box.max[a]);
        best.unclear |= std::abs(b.x) > 0.99f;
      }
      ++best.blocking;
      if (std::abs(hit.t - best.t) < 1e-4f) best.unclear = true;
      if (hit.t >= best.t) return;
      best = {hit.t, kind, static_cast<std::int32_t>(i), hit.denominator < 0, best.blocking, best.unclear};
    };
    PrimitiveHit hit;
    for (std::uint32_t i = 0; i < part.triangles.size(); ++i)
      consider(TestTriangle(part, i, ray, hit), hit, kKindTriangle, i);
    for (std::uint32_t i = 0; i < part.tetragons.size(); ++i)
      consider(TestTetragon(part, i, ray, hit), hit, kKindTetragon, i);
    if (loop == Loop::kSurfaces) continue;
    for (std::uint32_t i = 0; i < part.cylinders.size(); ++i)
      consider(TestCylinder(part, i, ray, hit), hit, kKindCylinder, i);
    for (std::uint32_t i = 0; i < part.particles.size(); ++i) {
      if (loop == Loop::kShadow) {
        if (TestShadowParticle(part, i, ray, hit)) ++best.blocking;
        // The discriminant's roots lie inside the sphere's box, but the tree knows its ends only.
        const Vec3 d = part.positions[part.particles[i]] - ray.origin;
        const float b = Dot(d, ray.direction);
        if (std::abs(std::sqrt(Dot(d - b * ray.direction, d - b * ray.direction)) -
                     part.scalarSets[0].values[i]) < 1e-3f ||
            std::abs(b) < 0.4f || std::abs(b - ray.t) < 0.4f)
          best.unclear |= SafeLength(d - b * ray.direction) < 0.4f;
      } else {
        consider(TestParticle(part, i, ray, hit), hit, kKindParticle, i);
      }
    }
  }
}

TEST_F(Curves, AllWalksAgreeWithALoopOverAllKinds) {
  AddPlain();
  const std::int32_t veil = AddShader("veil", kWhite, kBlack);
  shaders[static_cast<std::size_t>(veil)].surfaces[0][Element::kShadowTransparency].color = Grey(0.5f);
  objectTable.resize(2);
  FillSoup(objectTable[0], veil, 400);
  FillSoup(objectTable[1], veil, 400);
  const Mat4 placement = Placement(0.7f, {2, -1, 0.5f});
  objectTable[0].instances.emplace_back();
  objectTable[0].instances[0].object = 1;
  objectTable[0].instances[0].matrix = placement;
  Initialize();
  Mat4 inverse;
  ASSERT_TRUE(Invert(placement, inverse));
  int seen[8] = {}, compared = 0, dimmed = 0;
  for (int i = 0; i < 3000; ++i) {
    const Vec3 origin = UniformPoint(10);
    RayRecord ray = MakeRay(origin, UniformPoint(8) - origin);
    const Loop loop = i % 3 == 0 ? Loop::kNearest : i % 3 == 1 ? Loop::kSurfaces : Loop::kShadow;
    if (loop == Loop::kShadow) ray.t = Uniform(1, 12);
    LoopHit expected;
    LoopOver(objectTable[0], ray, loop, expected);
    RayRecord placed = ray;
    placed.origin = TransformPoint(inverse, ray.origin);
    placed.direction = TransformDirection(inverse, ray.direction);
    LoopOver(objectTable[1], placed, loop, expected);
    if (expected.unclear) continue;
    ++compared;
    if (loop == Loop::kShadow) {
      settings.samplePass = i % 2;
      const bool blocked = Occlude(ray);
      const float left = std::pow(0.5f, static_cast<float>(expected.blocking));
      EXPECT_EQ(blocked, left <= kBlackThreshold) << i;
      if (!blocked) {
        EXPECT_NEAR(ray.throughput.y, left, 1e-5f) << i;
      }
      dimmed += expected.blocking > 0 ? 1 : 0;
      continue;
    }
    const bool hit = loop == Loop::kNearest ? Trace(ray) : TraceSurfaces(ray);
    ASSERT_EQ(hit, expected.kind != kKindUnset) << i;
    if (!hit) continue;
    EXPECT_NEAR(ray.t, expected.t, 2e-5f) << i;
    EXPECT_EQ(ray.kind, expected.kind) << i;
    EXPECT_EQ(ray.primitive, expected.primitive) << i;
    EXPECT_EQ(ray.frontFace, expected.front) << i;
    ++seen[ray.kind];
  }
  EXPECT_GT(compared, 2000);
  EXPECT_GT(dimmed, 300);
  EXPECT_GT(seen[kKindTriangle], 100);
  EXPECT_GT(seen[kKindTetragon], 100);
  EXPECT_GT(seen[kKindParticle], 50);
  EXPECT_GT(seen[kKindCylinder], 50);
}

TEST_F(Curves, StrandsSkipTheirParentAndTintShadows) {
  const std::int32_t pane = AddShader("pane", kBlack, kBlack);
  SurfaceShader& layer = shaders[static_cast<std::size_t>(pane)].surfaces[0];
  layer.material = Material::kThinDielectric;
  layer[Element::kSpecular].color = kWhite;
  layer[Element::kIor].color = Grey(1.5f);
  Part& part = Geometry();
  part.shader = pane;
  for (float x : {0.0f, 1.0f, 2.0f}) AddVertex(part, {x, 0, 0}, {1, 0, 0}, 0.1f);
  part.cylinders = {0, 1};
  Initialize();
  const float sine = std::sin(0.9f), cosine = std::cos(0.9f);
  RayRecord ray = MakeRay({0.55f - 3 * cosine, 0.05f, 3 * sine}, {cosine, 0, -sine});
  RayRecord shadow = ray;
  ASSERT_TRUE(Trace(ray));
  EXPECT_EQ(ray.kind, kKindCylinder);
  EXPECT_EQ(ray.primitive, 0);
  EXPECT_TRUE(ray.frontFace);
  shadow.t = 6;
  settings.samplePass = 1;
  EXPECT_FALSE(Occlude(shadow));
  const float r0 = 0.04f, r = r0 + (1 - r0) * std::pow(1 - sine, 5.0f);
  EXPECT_NEAR(shadow.throughput.x, (1 - r) * (1 - r) / (1 - r * r), 1e-4f);
  shadow.t = 6;
  shadow.parentPart = ray.part;
  shadow.parentKind = ray.kind;
  shadow.parentPrimitive = ray.primitive;
  shadow.parentPlace = ray.hitPlace;
  EXPECT_FALSE(Occlude(shadow));
  EXPECT_EQ(shadow.throughput, kWhite);
  RayRecord again = shadow;
  EXPECT_FALSE(Trace(again));
}

TEST_F(Curves, NearestPointsProjectOntoSurfaces) {
  Part part;
  AddTetragon(part, {Vec3{1, 1, 0}, Vec3{3, 1, 0}, Vec3{3, 2, 0}, Vec3{1, 2, 0}}, 0);
  part.triangles.push_back({{0, 1, 2}, 0});
  part.uvSets[0].values = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  for (float height : {0.25f, -0.25f}) {
    const NearestPoint on = NearestOnTriangle(part, 0, {2.5f, 1.25f, height});
    EXPECT_NEAR(on.distance, 0.25f, 1e-6f);
    EXPECT_NEAR(on.uv.x, 0.75f, 1e-6f);
    EXPECT_NEAR(on.uv.y, 0.25f, 1e-6f);
    const Vec3 query = {1.5f, 1.75f, height};
    const NearestPoint square = NearestOnTetragon(part, 0, query);
    EXPECT_NEAR(square.uv.x, 0.25f, 1e-6f);
    EXPECT_NEAR(square.uv.y, 0.75f, 1e-6f);
    // A rank: the normal is as long as the product of the diagonals, here 4 along z.
    EXPECT_NEAR(square.distance, SafeLength(Vec3{query.x, query.y, height + 16 * height}), 1e-5f);
  }
  EXPECT_EQ(NearestOnTriangle(part, 0, {1.5f, 1.75f, 0.1f}).distance, kFarthest);
  EXPECT_EQ(NearestOnTriangle(part, 0, {2, 1, 0}).distance, kFarthest);  // above an edge
  EXPECT_EQ(NearestOnTetragon(part, 0, {0.9f, 1.5f, 0}).distance, kFarthest);
  part.uvSets.clear();
  EXPECT_EQ(NearestOnTriangle(part, 0, {2.5f, 1.25f, 0}).uv, Vec2{});
}

TEST_F(Curves, StrandsTakeTheCoordinatesUnderTheirRoots) {
  for (int variant = 0; variant < 3;
       ++variant) {  // 0: on a surface, 1: no surface, 2: lengths beyond the end
    Restart();
    AddPlain();
    Part& ground = Geometry();
    constexpr int kCells = 12;
    if (variant != 1)
      for (int y = 0; y < kCells; ++y)
        for (int x = 0; x < kCells; ++x) {
          const auto at = [&](int i, int k) {
            return Vec3{static_cast<float>(x + i), static_cast<float>(y + k), 0};
          };
          const auto first = static_cast<std::uint32_t>(ground.positions.size());
          const std::array<Vec3, 4> corners = {at(0, 0), at(1, 0), at(1, 1), at(0, 1)};
          for (Vec3 p : corners) {
            ground.positions.push_back(p);
            ground.uvSets[0].values.push_back({p.x / kCells, 1 - p.y / kCells});
          }
          if ((x + y) % 2 == 0) {
            ground.tetragons.push_back({{first, first + 1, first + 2, first + 3}, 0});
          } else {
            ground.triangles.push_back({{first, first + 1, first + 2}, 0});
            ground.triangles.push_back({{first, first + 2, first + 3}, 0});
          }
        }
    Part hair;
    std::vector<Vec3> roots;
    for (int strand = 0; strand < 200; ++strand) {
      const Vec3 root = {Uniform(0.01f, 11.9f), Uniform(0.01f, 11.9f), 0};
      const std::uint32_t segments = generator() % 4;  // none, at times
      const auto first = static_cast<std::uint32_t>(hair.positions.size());
      for (std::uint32_t k = 0; k <= segments; ++k) {
        AddVertex(hair, root + Vec3{0.3f, 0.1f, 1} * static_cast<float>(k), {0, 0, 1}, 0.01f);
        if (k < segments) hair.cylinders.push_back(first + k);
        hair.uvSets[0].values.push_back({-1, static_cast<float>(strand)});
        roots.push_back(root);
      }
      hair.strandLengths.push_back(segments);
    }
    const std::vector<Vec2> given = hair.uvSets[0].values;
    if (variant == 2) {
      hair.strandLengths.back() = 1000;
      hair.strandLengths.push_back(0xFFFFFFFF);
      hair.uvSets[0].values.clear();
    }
    objectTable[0].parts.push_back(hair);
    Initialize();
    const std::vector<Vec2>& uvs = objectTable[0].parts[1].uvSets[0].values;
    ASSERT_EQ(uvs.size(), roots.size());
    for (std::size_t v = 0; v < uvs.size(); ++v) {
      if (variant == 1) {
        EXPECT_EQ(uvs[v], given[v]);
      } else {
        EXPECT_NEAR(uvs[v].x, roots[v].x / kCells, 1e-4f) << v;
        EXPECT_NEAR(uvs[v].y, 1 - roots[v].y / kCells, 1e-4f) << v;
      }
    }
  }
}

// A shining square that moves by two units over eight passes leaves a streak as long as the square and seven
// eighths of the way, as bright in all as the square at rest.
TEST_F(Curves, MotionDrawsAStreak) {
  constexpr int kPasses = 8;
  const float size = 0.5f, way = 2;
  double sums[2] = {};
  float length[2] = {}, height[2] = {}, brightest[2] = {};
  for (int moving : {0, 1}) {
    Restart();
    skyLight.color = kBlack;
    cameras[0].width = cameras[0].height = 64;
    cameras[0].sample = kPasses;
    AddPlane(0, size / 2, AddShader("lamp", kBlack, kWhite));
    for (Vec3& p : Geometry().positions) p.x -= way / 2;
    const std::vector<Vec3> start = Geometry().positions;
    if (moving == 1)
      Geometry().vectorSets.push_back({"motion", std::vector<Vec3>(start.size(), {way, 0, 0})});
    Geometry().vectorSets.push_back({"velocity", std::vector<Vec3>(start.size(), {0, way, 0})});
    LookFrom({0, 0, 50}, kBlack, 4.6f);
    for (CameraPose& pose : cameras[0].poses) pose.upVector = {0, 1, 0};
    Render();
    std::vector<float> rows(64), columns(64);
    for (std::size_t i = 0; i < Pixels(0).size(); i += 3) {
      const float value = Pixels(0)[i];
      sums[moving] += static_cast<double>(value);
      brightest[moving] = std::max(brightest[moving], value);
      const std::size_t pixel = i / 3;
      columns[pixel % 64] = std::max(columns[pixel % 64], value);
      rows[pixel / 64] = std::max(rows[pixel / 64], value);
    }
    const auto lit = [](const std::vector<float>& line) {
      return static_cast<float>(std::count_if(line.begin(), line.end(), [](float v) { return v > 0.06f; }));
    };
    length[moving] = lit(columns);
    height[moving] = lit(rows);
    const Vec3 moved = Geometry().positions[0] - start[0];
    EXPECT_NEAR(moved.x, moving == 1 ? way : 0, 1e-5f);
    EXPECT_EQ(moved.y, 0);
    EXPECT_NEAR(sceneBounds.max.x, moving == 1 ? (way + size) / 2 : (size - way) / 2, 1e-5f);
    EXPECT_NEAR(sceneCenter.x, moving == 1 ? way / 2 : -way / 2, 1e-5f);
  }
  EXPECT_NEAR(sums[1] / sums[0], 1, 0.02);
  EXPECT_NEAR(height[1], height[0], 1);
  const float pixelsPerUnit = 64 / (100 * std::tan(2.3f * kPi / 180));
  EXPECT_NEAR(length[1] - length[0], pixelsPerUnit * way * (kPasses - 1) / kPasses, 1);
  EXPECT_NEAR(brightest[0], 1, 1e-3f);
  EXPECT_NEAR(brightest[1], 2.0f / kPasses, 0.13f);  // two or three passes shine on a point
}

TEST_F(Curves, MotionToNowhereLosesWhatMovesAndNoMore) {
  AddPlain();
  FillSoup(objectTable[0], 0, 50);
  Part& part = objectTable[0].parts[1];
  const Vec3 still = part.positions[0];
  part.vectorSets.push_back({"motion", std::vector<Vec3>(part.positions.size())});
  part.vectorSets[0].values[1] = {std::nanf(""), 0, 0};
  part.vectorSets[0].values[2] = {0, INFINITY, 0};
  Initialize();
  std::vector<RayRecord> rays, before;
  for (int i = 0; i < 1000; ++i) {
    rays.push_back(MakeRay(UniformPoint(10), UniformDirection()));
    before.push_back(rays.back());
    Trace(before.back());
  }
  for (int pass = 0; pass < 3; ++pass) UpdateScene(3);
  int hits = 0;
  for (std::size_t i = 0; i < rays.size(); ++i) {
    const bool lost = before[i].kind == kKindParticle && before[i].primitive > 0 && before[i].primitive < 3;
    if (lost) continue;
    Trace(rays[i]);
    EXPECT_EQ(rays[i].kind, before[i].kind) << i;
    EXPECT_EQ(rays[i].primitive, before[i].primitive) << i;
    hits += rays[i].primitive == kNone ? 0 : 1;
  }
  EXPECT_GT(hits, 20);
  RayRecord ray = MakeRay(still + Vec3{0, 0, 0.02f}, {0, 0, 1});
  ASSERT_TRUE(Trace(ray));
  EXPECT_LT(ray.t, 1);
}

// A ray at a distance b from the centre of a glass ball leaves it turned by twice the difference of its
// angles.
TEST_F(Curves, ParticlesOfGlassBendRaysTwice) {
  constexpr float kGlass = 1.5f;
  for (float b : {0.0f, 0.3f, 0.6f}) {
    Restart();
    skyLight.color = kBlack;
    cameras[0].width = cameras[0].height = 4;
    const std::int32_t glass = AddShader("glass", kBlack, kBlack);
    SurfaceShader& layer = shaders[static_cast<std::size_t>(glass)].surfaces[0];
    layer.material = Material::kDielectric;
    layer[Element::kSpecular].color = kWhite;
    layer[Element::kIor].color = Grey(kGlass);
    // A floor of a hundred emissive stripes: red tells the place.
    for (int i = 0; i < 100; ++i) {
      const float x = static_cast<float>(i) / 10 - 5, y = 5;
      const std::int32_t stripe =
          AddShader(("stripe " + std::to_string(i)).c_str(), kBlack, {x / 10 + 0.505f, 1, 0});
      AddTetragon(Geometry(),
                  {Vec3{x, -y, -2}, Vec3{x + 0.1f, -y, -2}, Vec3{x + 0.1f, y, -2}, Vec3{x, y, -2}}, stripe);
    }
    objectTable[0].parts.emplace_back().shader = glass;
    AddParticle(objectTable[0].parts[1], kBlack, 1);
    LookFrom({-b, 0, 5}, {-b, 0, 0}, 0.02f);
    for (CameraPose& pose : cameras[0].poses) pose.upVector = {0, 1, 0};
    settings.rayDepth = 3;
    Render();
    EXPECT_NEAR(10 * (MeanColor().x / MeanColor().y - 0.5f), PlaceBehindBall(b, kGlass), 0.06f) << b;
    const auto schlick = [](float cosine) { return 0.04f + 0.96f * std::pow(1 - cosine, 5.0f); };
    const float kept = 1 - schlick(std::cos(std::asin(b)));
    EXPECT_LT(MeanColor().y, kept + 1e-3f);
    EXPECT_GT(MeanColor().y, 0.9f * kept * kept);
  }
}

TEST_F(Curves, ParticlesInAFurnaceKeepItsRadiance) {
  for (int variant = 0; variant < 3; ++variant) {  // one grey ball, a heap of white ones, glass
    Restart();
    const float albedo = variant == 0 ? 0.6f : 1.0f;
    const std::int32_t shader = AddShader("ball", variant == 2 ? kBlack : Grey(albedo), kBlack);
    if (variant == 2) {
      SurfaceShader& layer = shaders[static_cast<std::size_t>(shader)].surfaces[0];
      layer.material = Material::kDielectric;
      layer[Element::kSpecular].color = kWhite;
      layer[Element::kIor].color = Grey(1.5f);
    }
    Part& part = Geometry();
    part.shader = shader;
    if (variant == 1)
      for (int i = 0; i < 60; ++i) AddParticle(part, UniformPoint(1), 0.3f);
    else
      AddParticle(part, kBlack, 1);
    cameras[0].width = cameras[0].height = 8;
    LookFrom({0, -4, 0}, kBlack, variant == 1 ? 15 : 20);
    settings.rayDepth = settings.rendererBounce = 40;
    settings.rendererSample = 4;
    Render();
    EXPECT_NEAR(MeanColor().y, albedo, variant == 0 ? 1e-3f : 0.02f) << variant;
    EXPECT_LT(*std::max_element(Pixels(0).begin(), Pixels(0).end()), albedo + 1e-3f) << variant;
  }
}

}  // namespace
}  // namespace zp
