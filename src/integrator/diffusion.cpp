// Light that enters a surface at one point and leaves it at another: a Gaussian of the distance between them,
// sampled by probe rays through the body.

#include <algorithm>

#include "accel/accel.h"
#include "core/random.h"
#include "integrator/estimator.h"

namespace zp {
namespace {

constexpr int kMostDraws = 256;

float LargestComponent(Vec3 v) { return std::max({v.x, v.y, v.z}); }

Vec3 UniformOnSphere() {
  const float z = 1 - 2 * RandomFloat(), angle = 2 * kPi * RandomFloat();
  const float radius = SafeSqrt(1 - z * z);
  return {radius * std::cos(angle), radius * std::sin(angle), z};
}

// A chord of the sphere around the point: both ends uniform on it.
RayRecord MakeProbe(const RayRecord& ray, const ShadingPoint& point, float radius) {
  const Vec3 start = radius * UniformOnSphere(), end = radius * UniformOnSphere();
  const Vec3 chord = end - start;
  RayRecord probe = ray;
  probe.origin = point.position + start;
  probe.t = SafeLength(chord);
  probe.direction = SafeNormalize(chord);
  probe.depth = static_cast<std::uint8_t>(std::max<int>(ray.depth, 1));  // it is no camera ray
  probe.parentPart = nullptr;  // it starts in space, and may come back to where the light came in
  probe.parentPrimitive = kNone;
  probe.parentKind = kKindUnset;
  return probe;
}

// What a narrower channel keeps at a squared distance that was drawn with the widest one's variance.
float ChannelWeight(float squaredDistance, float drawnVariance, float variance) {
  const auto gauss = [&](float v) {
    return std::exp(-static_cast<double>(squaredDistance) / (2.0 * static_cast<double>(v))) /
           std::sqrt(static_cast<double>(v));
  };
  const double drawn = gauss(drawnVariance);
  return drawn > 0 ? static_cast<float>(gauss(variance) / drawn) : 0.0f;
}

// The fields of a hit, from the probe; path state stays the ray's.
RayRecord WithHitOf(const RayRecord& ray, const RayRecord& probe) {
  RayRecord exitRay = ray;
  exitRay.part = probe.part;
  exitRay.hitPlace = probe.hitPlace;
  exitRay.primitive = probe.primitive;
  exitRay.kind = probe.kind;
  exitRay.shader = probe.shader;
  exitRay.barycentric = probe.barycentric;
  exitRay.hitMatrixDepth = probe.hitMatrixDepth;
  return exitRay;
}

}  // namespace

bool Diffuses(const RayRecord& ray, const ShadingPoint& point) {
  const Vec3 c = point.diffusionColor;
  return point.hasDiffusion && (ray.kind == kKindTriangle || ray.kind == kKindTetragon) && c.x > 0 &&
         c.y > 0 && c.z > 0;
}

void DrawExit(const RayRecord& ray, const ShadingPoint& point, RayRecord& exitRay, ShadingPoint& exit,
              Vec3& weight) {
  const Vec3 variances = point.diffusionColor;
  const float variance = LargestComponent(variances);
  for (int draw = 0; draw < kMostDraws; ++draw) {
    const float radius = SafeSqrt(-2 * variance * SafeLog(RandomFloat()));
    RayRecord probe = MakeProbe(ray, point, radius);
    if (!TraceSurfaces(probe) || probe.shader != ray.shader) continue;
    exit = point;  // layer, colours and Fresnel weights are those of where the light is seen
    if (!SetUpShadingPoint(probe, exit)) continue;
    if (probe.frontFace != ray.frontFace) {
      exit.outgoing = -exit.outgoing;
      exit.geometricNormal = -exit.geometricNormal;
      exit.normal = -exit.normal;
    }
    exit.specularWeight = point.specularWeight;
    exit.diffuseWeight = point.diffuseWeight;
    exitRay = WithHitOf(ray, probe);
    const Vec3 way = exit.position - point.position;
    const float squared = Dot(way, way);
    for (int c = 0; c < 3; ++c) weight[c] = ChannelWeight(squared, variance, variances[c]);
    return;
  }
  exit = point;
  exitRay = ray;
  weight = kWhite;
}

}  // namespace zp
