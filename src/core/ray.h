// core/ray.h: everything that travels with a ray, and the slots that each thread writes for itself.

#pragma once

#include <cstdint>
#include <type_traits>

#include "core/sample_points.h"
#include "core/vec.h"

namespace zp {

struct Part;          // geometry/object.h
struct ShadingPoint;  // shading/shading_point.h

inline constexpr std::int32_t kNone = -1;
inline constexpr int kMaxThreads = 256;

// What kind of scattering made a ray. A camera ray counts as a mirror view.
enum Event : std::uint8_t {
  kEventLightSample = 1,
  kEventLambertian = 2,
  kEventTransmissive = 3,
  kEventGlossy = 4,
  kEventGlossyRefraction = 5,
  kEventSpecular = 6,
  kEventSpecularRefraction = 7,
};

// Kinds of primitive, as trees, hits and emission lists name them.
enum PrimitiveKind : std::uint8_t {
  kKindNone = 0,
  kKindParticle = 1,
  kKindCylinder = 2,
  kKindTriangle = 3,
  kKindTetragon = 4,
  kKindInstance = 5,
  kKindUnset = 255,  // on a ray that has hit nothing yet
};

inline constexpr std::int32_t kMostDepth = 255;  // bounces of a path, which a ray counts in bytes

// Lives on its caller's stack, one for each ray.
struct RayRecord {
  Vec2 rotation;                              // the pixel's entry of pixelRotationTable: format 1
  PointSource points;                         // of the draws at its hit: format 2
  std::uint32_t sampleNumber = 0;             // the ray's number in its sequence
  std::int32_t dimension = 0;                 // its first Halton dimension; a child's is two higher
  Vec3 origin;                                // scene units, in the space of the Object being walked
  Vec3 direction;                             // unit length
  Vec3 inverseDirection;                      // 1 / component, filled by Trace
  Vec3 barycentric;                           // of the hit; meaning by kind: accel/primitive_tests.h
  Vec3 product;                               // of the edges of a triangle that was hit; zero: not known
  float t = kFarthest;                        // distance to the hit
  Vec3 throughput = {1, 1, 1};                // linear RGB weight of the path so far
  Vec3 photonPower;                           // of a photon ray
  const ShadingPoint* parentPoint = nullptr;  // the point that the ray left; null on a camera ray
  const Part* part = nullptr;                 // what was hit
  float ior = 1;                              // of the medium around the ray
  std::int32_t sampleWeight = 1;              // how many samples of this level make one pixel
  std::int32_t shader = kNone;                // of the hit
  std::int32_t primitive = kNone;             // index of what was hit, in its Part's list of that kind
  std::int32_t medium = kNone;                // Shader of the body around the ray; kNone in the open
  std::int32_t outerMedium = kNone;           // of the body around that one
  std::int32_t parentShader = kNone;          // the same four of the hit that the ray left
  std::int32_t parentPrimitive = kNone;       //
  const Part* parentPart = nullptr;           //
  std::uint64_t place = 0;        // of the Object being walked: one number for each way through Instances
  std::uint64_t hitPlace = 0;     // the same of the hit
  std::uint64_t parentPlace = 0;  // and of the hit that the ray left
  std::uint8_t kind = kKindUnset;
  std::uint8_t parentKind = kKindUnset;
  std::uint8_t previousEvent = kEventSpecular;
  std::uint8_t event = kEventSpecular;
  std::uint8_t thread = 0;          // OpenMP thread number: index of all per-thread slots
  std::uint8_t depth = 0;           // bounces of any kind
  std::uint8_t diffuseBounces = 0;  // Lambertian and transmissive
  std::uint8_t glossyBounces = 0;
  std::uint8_t specularBounces = 0;
  std::uint8_t matrixDepth = 0;     // Instances entered while walking
  std::uint8_t hitMatrixDepth = 0;  // the same at the hit
  bool frontFace = false;           // met the side that the normal points to
  bool photonIndirect = false;
  bool photonStore = false;
  bool levelZeroHit = false;                 // the hit Object is the RootObject
  std::uint8_t scattering = kEventSpecular;  // the last event that was no mirror's; a hair's counts as glossy
};
static_assert(std::is_trivially_copyable_v<RayRecord>);

// Diffuse and glossy bounces: 0 at a first hit, the only place where paths branch.
inline int BounceCount(const RayRecord& ray) { return ray.diffuseBounces + ray.glossyBounces; }

// Written by one thread each, summed between passes. A cache line of its own keeps threads apart.
struct alignas(64) ThreadSlot {
  std::uint64_t rays = 0;        // nearest-hit rays
  std::uint64_t shadowRays = 0;  // any-hit rays
  std::uint64_t innerNodes = 0;  // visited by shadow rays
  std::uint64_t leaves = 0;
  std::uint64_t primitives = 0;
  std::uint32_t pixel = 0;  // linear index of the pixel that is being rendered
};
inline ThreadSlot threadSlots[kMaxThreads];

}  // namespace zp
