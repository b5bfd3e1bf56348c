// Strands and particles: the lanes of a curve against its dense subdivision, spheres against closed forms,
// and all kinds together in every walk; where strands stand on surfaces; what moves between passes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <tuple>

#include "accel/accel.h"
#include "accel/curve_segment.h"
#include "accel/tree.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "integrator/estimator.h"
#include "random_geometry.h"
#include "render_fixture.h"

namespace zp {
namespace {

// A ray that leaves the primitive which `hit` met, from `origin`.
RayRecord LeaveHit(const RayRecord& hit, Vec3 origin, Vec3 direction, float t = kFarthest) {
  RayRecord ray = AimRay(origin, direction, t);
  ray.parentPart = hit.part;
  ray.parentKind = hit.kind;
  ray.parentPrimitive = hit.primitive;
  ray.parentPlace = hit.hitPlace;
  return ray;
}

// One segment about a unit long that bends moderately.
Part MakeSegment(Vec3 center, float radius0, float radius1) {
  Part part;
  const Vec3 axis = UniformDirection();
  const float half = Uniform(0.35f, 0.6f);
  AddStrandVertex(part, center - half * axis, axis + 0.5f * UniformDirection(), radius0);
  AddStrandVertex(part, center + half * axis, axis + 0.5f * UniformDirection(), radius1);
  part.cylinders = {0};
  return part;
}

class Curves : public RenderTest {
 protected:
  Curves() { generator.seed(5); }

  // One Shader that every ray sees and no shadow ray passes, unless a test adds others.
  static std::int32_t AddPlain() { return AddShader("plain", kWhite, kBlack); }
};

// The curve is cut into thousands of points.
TEST_F(Curves, LanesAgreeWithADenseSubdivision) {
  constexpr std::size_t kSteps = 2000, kPiece = kSteps / 8;
  int hits = 0, misses = 0, joints = 0, jointMisses = 0;
  for (int i = 0; i < 8000; ++i) {
    const float radius = Uniform(0.02f, 0.1f);
    const Part part = MakeSegment(UniformPoint(3), radius, radius);
    std::vector<Vec3> curve;
    for (std::size_t k = 0; k <= kSteps; ++k)
      curve.push_back(CurvePoint(part, 0, static_cast<float>(k) / kSteps));
    float slack = 0;  // above what the curve leaves the chords of its eight pieces
    for (std::size_t k = 0; k < kSteps; k += kPiece)
      slack =
          std::max(slack, 1.5f * SafeLength(curve[k + kPiece / 2] - 0.5f * (curve[k] + curve[k + kPiece])));
    const Vec3 origin = UniformPoint(6);
    const Vec3 target =
        CurvePoint(part, 0, Uniform(0.05f, 0.95f)) + Uniform(0, 3 * radius) * UniformDirection();
    const RayRecord ray = AimRay(origin, target - origin);
    std::size_t closest = 0;
    float distance = kFarthest, t = 0;
    for (std::size_t k = 0; k <= kSteps; ++k) {
      const float b = Dot(curve[k] - origin, ray.direction);
      const float beside = SafeLength(curve[k] - origin - b * ray.direction);
      if (beside >= distance) continue;
      distance = beside;
      t = b;
      closest = k;
    }
    // Near its ends, and along its axis, a curve is rough: the planes between pieces show.
    if (closest < kSteps / 20 || closest > kSteps - kSteps / 20 || t < 1) continue;
    const float along = static_cast<float>(closest) / kSteps;
    const float sine =
        SafeLength(Cross(UnitVector(curve[closest + 10] - curve[closest - 10]), ray.direction));
    if (sine < 0.7f) continue;
    PrimitiveHit hit;
    const bool met = TestCylinder(part, 0, ray, hit);
    if (distance > radius + slack) {
      EXPECT_FALSE(met) << i;
      ++misses;
      continue;
    }
    if (distance > 0.9f * radius - slack) continue;
    // Pieces meet at angles: a narrow gap opens where both end planes cut the ray off.
    const float piece = 8 * along;
    const bool joint = std::abs(piece - std::round(piece)) < 0.3f;
    joints += joint ? 1 : 0;
    jointMisses += joint && !met ? 1 : 0;
    EXPECT_TRUE(met || joint) << i;
    if (!met) continue;
    ++hits;
    EXPECT_NEAR(hit.t, t, (slack + 0.15f * radius) / (sine * sine)) << i;
    EXPECT_NEAR(hit.barycentric.z, along, 0.125f + radius) << i;
    EXPECT_NEAR(std::abs(hit.barycentric.x) * radius, distance, slack + 1e-5f) << i;
    EXPECT_NEAR(-hit.denominator, sine, 0.15f) << i;
    const Vec3 p = ray.origin + hit.t * ray.direction;
    const Box box = CylinderBox(part, 0);
    for (int a = 0; a < 3; ++a) EXPECT_TRUE(box.min[a] - 1e-5f <= p[a] && p[a] <= box.max[a] + 1e-5f) << i;
  }
  EXPECT_GT(hits, 1000);
  EXPECT_GT(misses, 1000);
  EXPECT_LT(jointMisses, joints / 20);
}

// The offset has a sign: the side on which the axis passes the ray. The radius is a ramp of sevenths.
TEST_F(Curves, StraightSegmentsGiveClosedForms) {
  Part part;
  AddStrandVertex(part, {0, 0, 0}, {1, 0, 0}, 0.1f);
  AddStrandVertex(part, {1, 0, 0}, {1, 0, 0}, 0.8f);
  part.cylinders = {0};
  PrimitiveHit hit;
  const auto meets = [&](Vec3 origin, Vec3 direction = {0, 0, -1}, float t = kFarthest) {
    return TestCylinder(part, 0, AimRay(origin, direction, t), hit);
  };
  for (int i = 0; i < 8; ++i) {
    const float radius = 0.1f + 0.7f * static_cast<float>(i) / 7;
    const float x = (static_cast<float>(i) + 0.5f) / 8;
    for (float side : {0.95f, -0.95f}) {
      ASSERT_TRUE(meets({x, side * radius, 3})) << i;
      EXPECT_NEAR(hit.t, 3, 1e-6f);
      EXPECT_NEAR(hit.barycentric.x, side, 1e-5f);
      EXPECT_EQ(hit.barycentric.z, x);
      EXPECT_NEAR(hit.denominator, -1, 1e-6f);
    }
    EXPECT_FALSE(meets({x, 1.02f * radius, 3})) << i;
  }
  EXPECT_FALSE(meets({-0.01f, 0, 3}));
  EXPECT_FALSE(meets({1.01f, 0, 3}));
  EXPECT_FALSE(meets({0.5f, 0, -3}));  // behind
  EXPECT_FALSE(meets({-3, 0, 0}, {1, 0, 0}));
  EXPECT_FALSE(meets({0.3f, 0, 3}, {0, 0, -1}, 3));
  EXPECT_TRUE(meets({0.3f, 0, 3}, {0, 0, -1}, 3.00001f));
  // Radii and tangents that are not there, or negative, are never met.
  part.scalarSets[0].values = {-0.1f, -0.1f};
  EXPECT_FALSE(meets({0.3f, 0, 3}));
  part.scalarSets.clear();
  EXPECT_FALSE(meets({0.3f, 0, 3}));
  part.scalarSets = {{"radius", {0.1f, 0.1f}}};
  part.tangents.clear();
  EXPECT_FALSE(meets({0.3f, 0, 3}));
}

TEST_F(Curves, LanesAgreeWithTheirPlainTwin) {
  int hits = 0;
  for (int i = 0; i < 20000; ++i) {
    Part part = MakeSegment(UniformPoint(1), Uniform(-0.1f, 0.3f), Uniform(0, 0.3f));
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
    EXPECT_EQ(std::tie(lanes.t, lanes.denominator, lanes.barycentric),
              std::tie(plain.t, plain.denominator, plain.barycentric));
  }
  EXPECT_GT(hits, 1000);
}

TEST_F(Curves, ParticlesAreSpheresFromOutsideAndInside) {
  Geometry().shader = AddPlain();
  const Vec3 center = {30, -20, 10};
  const float radius = 0.5f;
  AddParticle(Geometry(), center, radius);
  Initialize();
  for (int i = 0; i < 2000; ++i) {
    const bool inside = i % 2 == 0;
    const Vec3 origin =
        center + UniformDirection() * (inside ? Uniform(0, 0.9f) * radius : Uniform(0.6f, 40));
    const Vec3 target = center + UniformDirection() * (Uniform(0, 1.5f) * radius);
    if (SafeLength(target - origin) < 1e-2f) continue;
    RayRecord ray = AimRay(origin, target - origin);
    double b = 0, lengthSquared = 0, distanceSquared = 0;
    for (int a = 0; a < 3; ++a) {
      const double d = double{center[a]} - origin[a], way = double{ray.direction[a]};
      b += d * way, lengthSquared += way * way, distanceSquared += d * d;
    }
    b /= std::sqrt(lengthSquared);
    const double discriminant = b * b - distanceSquared + double{radius} * radius;
    if (std::abs(discriminant) < 1e-3) continue;
    const bool expected = discriminant > 0 && (inside || b > 0);
    ASSERT_EQ(Trace(ray), expected) << i;
    if (!expected) continue;
    EXPECT_NEAR(ray.t, inside ? b + std::sqrt(discriminant) : b - std::sqrt(discriminant), 1e-4);
    EXPECT_EQ(ray.frontFace, !inside);
    EXPECT_NEAR(SafeLength(ray.barycentric), radius, 1e-4f);
    const Vec3 place = ray.origin + ray.t * ray.direction;
    EXPECT_LT(SafeLength(place - center - ray.barycentric), 2e-5f);
    ShadingPoint point;
    ASSERT_TRUE(SetUpShadingPoint(ray, point));
    EXPECT_LT(SafeLength(point.normal - (inside ? -2 : 2) * ray.barycentric), 1e-3f);
    // From the hit: inwards to the other side, whatever the event; outwards to nothing.
    for (std::uint8_t event = kEventLambertian; event <= kEventSpecularRefraction; ++event) {
      RayRecord next = LeaveHit(ray, place, UniformDirection());
      next.event = event;
      const float cosine = Dot(next.direction, ray.barycentric) / radius;
      if (std::abs(cosine) < 0.01f) continue;
      ASSERT_EQ(Trace(next), cosine < 0) << cosine;
      if (cosine > 0) continue;
      EXPECT_NEAR(next.t, -2 * cosine * radius, 1e-3f);
      EXPECT_FALSE(next.frontFace);
    }
  }
}

// The roots of shadow rays are b -+ the discriminant itself.
TEST_F(Curves, ShadowRaysMeetParticlesByTheirDiscriminant) {
  struct Case {
    Vec3 origin;
    float t;
    bool blocked;
  };
  const Case cases[] = {
      {{-10, 0, 0}, 20, true},        {{-10, 0, 0}, 5.9f, false},      // the root is at 6, the sphere at 8
      {{-10, 0, 0}, 8.1f, true},      {{-10, 1.99f, 0}, 9.9f, false},  // 9.96, the sphere at 9.8
      {{-10, 1.99f, 0}, 9.98f, true}, {{-10, 2.01f, 0}, 20, false},
      {{-1, 0, 0}, 20, true},                                    // from inside: roots -3 and 5
      {{-1, 0, 0}, 4.9f, false},      {{3, 0, 0}, 0.9f, false},  // from outside, away: roots -7 and 1
  };
  Geometry().shader = AddPlain();
  AddParticle(Geometry(), kBlack, 2);  // discriminant 4 on the axis, 4 - y^2 beside it
  // Again far off, twice as large: there it blocks rays less than 4 beside its centre.
  objectTable.emplace_back();
  objectTable[1].instances.resize(2);
  for (Instance& instance : objectTable[1].instances) instance.object = 0;
  objectTable[1].instances[1].matrix = {{{2, 0, 0, 0}, {0, 2, 0, 100}, {0, 0, 2, 0}, {0, 0, 0, 1}}};
  Initialize();
  for (int pass : {0, 1}) {
    settings.frame.samplePass = pass;
    for (const Case& c : cases) {
      RayRecord ray = AimRay(c.origin, {1, 0, 0}, c.t);
      EXPECT_EQ(Occlude(ray), c.blocked) << &c - cases;
    }
    RayRecord inside = AimRay({-1, 0, 0}, {1, 0, 0});
    ASSERT_TRUE(Trace(inside));
    RayRecord child = LeaveHit(inside, {-1, 0, 0}, {1, 0, 0}, 20);
    EXPECT_FALSE(Occlude(child));
    for (float y : {0.0f, 3.6f, 4.2f}) {
      RayRecord ray = AimRay({-40, 100 + y, 0}, {1, 0, 0}, 80);
      EXPECT_EQ(Occlude(ray), y < 4) << y;
    }
  }
}

TEST_F(Curves, StrandsSkipTheirParentAndTintShadows) {
  Part& part = Geometry();
  part.shader = AddGlass(Material::kThinDielectric);
  for (float x : {0.0f, 1.0f, 2.0f}) AddStrandVertex(part, {x, 0, 0}, {1, 0, 0}, 0.1f);
  part.cylinders = {0, 1};
  Initialize();
  settings.frame.samplePass = 1;
  const float sine = std::sin(0.9f), cosine = std::cos(0.9f);
  const Vec3 origin = {0.55f - 3 * cosine, 0.05f, 3 * sine}, direction = {cosine, 0, -sine};
  RayRecord ray = AimRay(origin, direction), shadow = AimRay(origin, direction, 6);
  ASSERT_TRUE(Trace(ray));
  EXPECT_EQ(std::tuple(ray.kind, ray.primitive, ray.frontFace), std::tuple(kKindCylinder, 0, true));
  EXPECT_FALSE(Occlude(shadow));
  const float r0 = 0.04f, r = r0 + (1 - r0) * std::pow(1 - sine, 5.0f);
  EXPECT_NEAR(shadow.throughput.x, (1 - r) * (1 - r) / (1 - r * r), 1e-4f);
  shadow = LeaveHit(ray, origin, direction, 6);
  EXPECT_FALSE(Occlude(shadow));
  EXPECT_EQ(shadow.throughput, kWhite);
  RayRecord again = LeaveHit(ray, origin, direction);
  EXPECT_FALSE(Trace(again));
}

TEST_F(Curves, StrandsTakeTheCoordinatesUnderTheirRoots) {
  enum class Variant { kSurface, kNoSurface, kLengthsBeyondTheEnd };
  for (Variant variant : {Variant::kSurface, Variant::kNoSurface, Variant::kLengthsBeyondTheEnd}) {
    Restart();
    AddPlain();
    Part& ground = Geometry();
    constexpr int kCells = 12;
    for (int cell = 0; variant != Variant::kNoSurface && cell < kCells * kCells; ++cell) {
      const auto x = static_cast<float>(cell % kCells), y = static_cast<float>(cell / kCells);
      AddTetragon(ground, {Vec3{x, y, 0}, Vec3{x + 1, y, 0}, Vec3{x + 1, y + 1, 0}, Vec3{x, y + 1, 0}}, 0);
      if ((cell + cell / kCells) % 2 == 0) continue;
      const auto v = ground.tetragons.back().vertex;
      ground.triangles.push_back({{v[0], v[1], v[2]}, 0});
      ground.triangles.push_back({{v[0], v[2], v[3]}, 0});
      ground.tetragons.pop_back();
    }
    for (Vec3 p : ground.positions) ground.uvSets[0].values.push_back({p.x / kCells, 1 - p.y / kCells});
    Part hair;
    std::vector<Vec3> roots;
    for (int strand = 0; strand < 200; ++strand) {
      const Vec3 root = {Uniform(0.01f, 11.9f), Uniform(0.01f, 11.9f), 0};
      const std::uint32_t segments = generator() % 4;  // none, at times
      for (std::uint32_t k = 0; k <= segments; ++k) {
        if (k < segments) hair.cylinders.push_back(static_cast<std::uint32_t>(hair.positions.size()));
        AddStrandVertex(hair, root + Vec3{0.3f, 0.1f, 1} * static_cast<float>(k), {0, 0, 1}, 0.01f);
        hair.uvSets[0].values.push_back({-1, static_cast<float>(strand)});
        roots.push_back(root);
      }
      hair.strandLengths.push_back(segments);
    }
    const std::vector<Vec2> given = hair.uvSets[0].values;
    if (variant == Variant::kLengthsBeyondTheEnd) {
      hair.strandLengths.back() = 1000;
      hair.strandLengths.push_back(0xFFFFFFFF);
      hair.uvSets[0].values.clear();
    }
    objectTable[0].parts.push_back(hair);
    Initialize();
    const std::vector<Vec2>& uvs = objectTable[0].parts[1].uvSets[0].values;
    ASSERT_EQ(uvs.size(), roots.size());
    for (std::size_t v = 0; v < uvs.size(); ++v) {
      const Vec2 expected =
          variant == Variant::kNoSurface ? given[v] : Vec2{roots[v].x / kCells, 1 - roots[v].y / kCells};
      EXPECT_LT(std::hypot(uvs[v].x - expected.x, uvs[v].y - expected.y), 1e-4f) << v;
    }
  }
}

// A strand around a corner and a straight one, whose length, radius and set of uvs the Shader's layers ask
// for: what is left runs where the whole strand did.
TEST_F(Curves, LayersScaleStrands) {
  const auto tip = AddImage("tip", 2, 1, [](int x, int) { return Grey(x == 0 ? 0.5f : 0.0f); });
  for (const int format : {1, 2}) {
    settings.format = format;
    const std::int32_t shader = AddPlain();
    ImageSlot& length = ShaderAt(shader).geometry.length.emplace_back();
    length.color = kWhite, length.image = tip, length.pixelSampler = PixelSampler::kNearest;
    uvSetNames = {"missing", "roots"};
    length.uvSet = 2;
    ShaderAt(shader).geometry.radius.emplace_back().color = Grey(0.25f);
    Part part;
    for (Vec3 p : {Vec3{0, 0, 0}, {0, 0, 1}, {0, 0, 2}, {1, 0, 2}, {2, 0, 2}})
      AddStrandVertex(part, p, {}, 1);
    for (const float x : {7.0f, 8.0f}) AddStrandVertex(part, {x, 0, 0}, {}, 1);
    part.shader = shader;
    part.cylinders = {5, 0, 1, 2, 3};
    part.uvSets[0].values.assign(7, {0.9f, 0});
    part.uvSets.push_back({"roots", std::vector<Vec2>(7, {0.1f, 0})});
    part.uvSets[1].values[5].x = 0.9f;  // nothing is left of this one
    PreparePart(part, {});
    EXPECT_EQ(ScaleStrands(part), format == 2);
    EXPECT_EQ(part.cylinders.size(), format == 2 ? 4u : 5u);
    EXPECT_EQ(part.scalarSets[0].values[3], format == 2 ? 0.25f : 1.0f);
    const Vec3 end = part.positions[4];
    EXPECT_LT(SafeLength(end - (format == 2 ? Vec3{0, 0, 2} : Vec3{2, 0, 2})), 0.1f) << end.x << " " << end.z;
    EXPECT_NEAR(part.positions[2].z, format == 2 ? 1 : 2, 0.05f);
  }
}

// A shining square that moves by two units over eight passes leaves a streak as long as the square and seven
// eighths of the way, as bright in all as the square at rest.
TEST_F(Curves, MotionDrawsAStreak) {
  constexpr int kPasses = 8;
  constexpr std::size_t kWidth = 64;
  const float size = 0.5f, way = 2;
  float sums[2] = {}, length[2] = {}, brightest[2] = {};
  for (int moving : {0, 1}) {
    Restart();
    skyLight.color = kBlack;
    cameras[0].width = cameras[0].height = kWidth;
    cameras[0].sample = kPasses;
    AddPlane(0, size / 2, AddShader("lamp", kBlack, kWhite));
    for (Vec3& p : Geometry().positions) p.x -= way / 2;
    Geometry().vectorSets.push_back(
        {moving == 1 ? "motion" : "velocity", std::vector<Vec3>(4, {way, 0, 0})});  // the name decides
    LookFrom({0, 0, 50}, kBlack, 4.6f, {0, 1, 0});
    Render();
    std::vector<float> columns(kWidth);
    for (std::size_t i = 0; i < kWidth * kWidth; ++i)
      columns[i % kWidth] = std::max(columns[i % kWidth], Pixels(0)[3 * i]);
    for (float value : columns) length[moving] += value > 0.06f ? 1 : 0;
    brightest[moving] = *std::max_element(columns.begin(), columns.end());
    sums[moving] = MeanColor().x;
  }
  EXPECT_NEAR(sums[1] / sums[0], 1, 0.02f);
  const float pixelsPerUnit = kWidth / (100 * std::tan(2.3f * kPi / 180));
  EXPECT_NEAR(length[1] - length[0], pixelsPerUnit * way * (kPasses - 1) / kPasses, 1);
  EXPECT_NEAR(brightest[0], 1, 1e-3f);
  EXPECT_NEAR(brightest[1], 2.0f / kPasses, 0.13f);  // two or three passes shine on a point
}

// A quarter turn that doubles, and mirrors or not: arcs, not chords.
TEST_F(Curves, InstancesTurnTheShortWay) {
  settings.format = 2;
  for (const float mirror : {1.0f, -1.0f})
    for (const float endMirror : {1.0f, -1.0f}) {
      Instance instance;
      instance.matrix.m[0][0] = mirror;
      SetMatrixEnd(instance, {{{0, -2, 0, 4}, {2 * endMirror, 0, 0, 0}, {0, 0, 2, 0}, {0, 0, 0, 1}}});
      const bool fits = mirror == endMirror;
      PrepareMotion(instance);
      EXPECT_EQ(MotionOf(instance) != nullptr, fits);
      MoveInstance(instance, 0.5f);
      const float reach = mirror * 1.5f * std::sqrt(0.5f);
      const Vec3 expected = fits ? Vec3{2 + reach, reach, 0} : Vec3{mirror, 0, 0};
      EXPECT_LT(SafeLength(TransformPoint(instance.matrix, {1, 0, 0}) - expected), 1e-4f) << mirror;
    }
}

// A triangle that folds by a quarter, raised by half a unit where layers act, and a strand that leans over.
TEST_F(Curves, MovingVerticesCarryTheirVectors) {
  for (const int format : {1, 2}) {
    Restart();
    settings.format = format;
    const std::int32_t shader = AddPlain();
    ShaderAt(shader).geometry.height.emplace_back().color = Grey(0.5f);
    Part& part = Geometry();
    part.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    part.normals.assign(3, Pack({0, 0, 1}));
    part.triangles = {{{0, 1, 2}, shader}};
    part.vectorSets = {{"motion", {{}, {}, {0, -1, 1}}}};
    Part hair;
    for (const float z : {0.0f, 1.0f}) AddStrandVertex(hair, {5, 0, z}, {}, 0.1f);
    hair.cylinders = {0};
    hair.vectorSets = {{"motion", {{}, {1, 0, -1}}}};
    objectTable[0].parts.push_back(hair);
    Initialize();
    const auto moved = [&](float time) {
      if (format == 2)
        MoveScene(time);
      else
        UpdateScene(2);
    };
    moved(0.5f);
    const float half = std::sqrt(0.5f);
    const Vec3 normal = SafeNormalize(Unpack(Geometry().normals[0]));
    EXPECT_LT(SafeLength(normal - (format == 2 ? Vec3{0, -half, half} : Vec3{0, 0, 1})), 0.02f);
    const Vec3 tangent = SafeNormalize(Unpack(objectTable[0].parts[1].tangents[0]));
    EXPECT_LT(SafeLength(tangent - (format == 2 ? Vec3{half, 0, half} : Vec3{0, 0, 1})), 0.02f);
    moved(1);
    const Vec3 lift = {0, format == 2 ? -0.5f : 0.0f, 0};
    for (std::size_t v = 0; v < 3; ++v) {
      const Vec3 expected[] = {{0, 0, 0}, {1, 0, 0}, {0, 0, 1}};
      EXPECT_LT(SafeLength(Geometry().positions[v] - expected[v] - lift), 0.02f) << v;
    }
    RayRecord ray = AimRay(Vec3{0.25f, -5, 0.25f}, {0, 1, 0});
    EXPECT_TRUE(Trace(ray));
    EXPECT_NEAR(ray.t, 5 + lift.y, 0.02f);
  }
}

TEST_F(Curves, MotionToNowhereLosesWhatMovesAndNoMore) {
  FillSoup(objectTable[0], 50, AddPlain);
  Part& part = objectTable[0].parts[1];
  part.vectorSets.push_back({"motion", std::vector<Vec3>(part.positions.size())});
  part.vectorSets[0].values[1] = {std::nanf(""), 0, 0};
  part.vectorSets[0].values[2] = {0, INFINITY, 0};
  Initialize();
  std::vector<RayRecord> rays, before;
  for (int i = 0; i < 1000; ++i) {
    // Some start in a particle that stays.
    const Vec3 origin = i < 10 ? part.positions[0] + Vec3{0, 0, 0.02f} : UniformPoint(10);
    rays.push_back(AimRay(origin, UniformDirection()));
    before.push_back(rays.back());
    Trace(before.back());
  }
  for (int pass = 0; pass < 3; ++pass) UpdateScene(3);
  int hits = 0;
  for (std::size_t i = 0; i < rays.size(); ++i) {
    const bool lost = before[i].kind == kKindParticle && before[i].primitive > 0 && before[i].primitive < 3;
    if (lost) continue;
    Trace(rays[i]);
    EXPECT_EQ(std::tie(rays[i].kind, rays[i].primitive), std::tie(before[i].kind, before[i].primitive)) << i;
    hits += rays[i].primitive == kNone ? 0 : 1;
  }
  EXPECT_GT(hits, 20);
}

}  // namespace
}  // namespace zp
