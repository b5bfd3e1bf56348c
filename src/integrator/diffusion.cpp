// Light that enters a surface at one point and leaves it at another: a Gaussian of the distance between them,
// sampled by probe rays through the body.
//
// Format 2. A chord of a sphere with both ends uniform on it is a random line: it crosses surfaces of
// whatever slope alike, in proportion to their area. With a radius whose square is a sum of two exponential
// draws the crossings are spread by a Gaussian of exactly the variance that was asked for. Chords through the
// tangent plane always cross a flat body; where one crosses nothing the next is drawn, so that light is never
// lost.

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

// Of a sphere of radius 1 around the point.
struct Chord {
  Vec3 start, end;
};
Chord AnyChord() {
  Chord chord;
  chord.start = UniformOnSphere();
  chord.end = UniformOnSphere();
  return chord;
}
Chord ChordThrough(Vec3 normal) {
  Chord chord = AnyChord();
  if (Dot(chord.start, normal) * Dot(chord.end, normal) > 0) chord.end = -chord.end;
  return chord;
}

RayRecord MakeProbe(const RayRecord& ray, const ShadingPoint& point, const Chord& ends, float radius) {
  const Vec3 start = radius * ends.start, chord = radius * ends.end - start;
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
  exitRay.product = probe.product;
  exitRay.hitMatrixDepth = probe.hitMatrixDepth;
  return exitRay;
}

// True if the probe finds the body; then `exit` is where. Layer, colours and Fresnel weights are those of
// where the light is seen.
bool FindExit(const RayRecord& ray, const ShadingPoint& point, RayRecord& probe, ShadingPoint& exit) {
  if (!TraceSurfaces(probe) || probe.shader != ray.shader) return false;
  exit = point;
  if (!SetUpShadingPoint(probe, exit)) return false;
  if (probe.frontFace != ray.frontFace) {
    exit.outgoing = -exit.outgoing;
    exit.geometricNormal = -exit.geometricNormal;
    exit.normal = -exit.normal;
  }
  exit.specularWeight = point.specularWeight;
  exit.diffuseWeight = point.diffuseWeight;
  return true;
}

// Whether a chord of that radius would find the body.
bool FindsBody(const RayRecord& ray, const ShadingPoint& point, const Chord& chord, float radius) {
  RayRecord probe = MakeProbe(ray, point, chord, radius);
  return TraceSurfaces(probe) && probe.shader == ray.shader;
}

// A radius by the variance, for a variance of 1.
float DrawRadius() { return SafeSqrt(-2 * (SafeLog(RandomFloat()) + SafeLog(RandomFloat()))); }

// How dense the draws of a variance are at a radius, but for what all variances share.
float RadiusDensity(float radius, float variance) {
  return std::exp(-radius * radius / (2 * variance)) / (variance * variance);
}

// By channel: how much more often chords of the drawn channel find the body than those of that one; the mean
// of these draws. Of flat bodies it is 1, always. One chord is tried at the scales of all; only where they
// disagree draws count how rare the other's success is.
Vec3 DrawSuccessRatios(const RayRecord& ray, const ShadingPoint& point, int drawn) {
  const Vec3 variances = point.diffusionColor;
  Vec3 ratios = kWhite;
  if (variances == Vec3{variances.x, variances.x, variances.x}) return ratios;
  const auto finds = [&](const Chord& chord, float radius, int c) {
    return FindsBody(ray, point, chord, std::sqrt(variances[c]) * radius);
  };
  const Chord chord = ChordThrough(point.geometricNormal);
  const float radius = DrawRadius();
  const bool found = finds(chord, radius, drawn);
  for (int c = 0; c < 3; ++c) {
    if (variances[c] == variances[drawn] || finds(chord, radius, c) == found) continue;
    int draws = 1;
    while (draws < kMostDraws && !finds(ChordThrough(point.geometricNormal), DrawRadius(), c)) ++draws;
    ratios[c] += (found ? 1.0f : -1.0f) * static_cast<float>(draws);
  }
  return ratios;
}

// The radius is drawn by one of the channels; each channel weighs it by the balance heuristic (Veach and
// Guibas, "Optimally Combining Sampling Techniques", 1995), so that a channel's mean weight is 1 on whatever
// body. Where bodies are narrow one draw's weight can be below 0.
Vec3 ChannelWeights(const RayRecord& ray, const ShadingPoint& point, int drawn, float radius) {
  Vec3 densities;
  for (int c = 0; c < 3; ++c) densities[c] = RadiusDensity(radius, point.diffusionColor[c]);
  const float sum = densities.x + densities.y + densities.z;
  if (!(sum > 0)) return kWhite;
  return (3 / sum) * densities * DrawSuccessRatios(ray, point, drawn);
}

int DrawnChannel(const RayRecord& ray, std::uint32_t sample) {
  return static_cast<int>(3 * UnitPair(LonePointAt(ray.points, kDecideExit, sample)).x);
}

// Draws an exit as format 2 spreads light. False where nothing is found.
bool DrawSpreadExit(const RayRecord& ray, const ShadingPoint& point, std::uint32_t sample, RayRecord& probe,
                    ShadingPoint& exit, Vec3& weight) {
  const int channel = DrawnChannel(ray, sample);
  const float spread = std::sqrt(point.diffusionColor[channel]);
  for (int draw = 0; draw < kMostDraws; ++draw) {
    const float radius = spread * DrawRadius();
    probe = MakeProbe(ray, point, ChordThrough(point.geometricNormal), radius);
    if (!FindExit(ray, point, probe, exit)) continue;
    weight = ChannelWeights(ray, point, channel, radius);
    return true;
  }
  return false;
}

// The same in format 1.
bool DrawProbedExit(const RayRecord& ray, const ShadingPoint& point, RayRecord& probe, ShadingPoint& exit,
                    Vec3& weight) {
  const Vec3 variances = point.diffusionColor;
  const float variance = LargestComponent(variances);
  for (int draw = 0; draw < kMostDraws; ++draw) {
    const float radius = SafeSqrt(-2 * variance * SafeLog(RandomFloat()));
    probe = MakeProbe(ray, point, AnyChord(), radius);
    if (!FindExit(ray, point, probe, exit)) continue;
    const Vec3 way = exit.position - point.position;
    const float squared = Dot(way, way);
    for (int c = 0; c < 3; ++c) weight[c] = ChannelWeight(squared, variance, variances[c]);
    return true;
  }
  return false;
}

}  // namespace

bool Diffuses(const RayRecord& ray, const ShadingPoint& point) {
  const Vec3 c = point.diffusionColor;
  return point.hasDiffusion && (ray.kind == kKindTriangle || ray.kind == kKindTetragon) && c.x > 0 &&
         c.y > 0 && c.z > 0;
}

void DrawExit(const RayRecord& ray, const ShadingPoint& point, std::uint32_t sample, RayRecord& exitRay,
              ShadingPoint& exit, Vec3& weight) {
  RayRecord probe;
  if (settings.format >= 2 ? DrawSpreadExit(ray, point, sample, probe, exit, weight)
                           : DrawProbedExit(ray, point, probe, exit, weight)) {
    exitRay = WithHitOf(ray, probe);
    return;
  }
  exit = point;
  exitRay = ray;
  weight = kWhite;
}

}  // namespace zp
