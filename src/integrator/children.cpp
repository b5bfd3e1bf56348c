// The rays that leave a hit, for radiance and for photons alike.

#include <cmath>

#include "core/random.h"
#include "integrator/estimator.h"
#include "shading/directions.h"

namespace zp {

float RefractedIor(float ior, float ratio) {
  const Camera* camera = ActiveCamera();
  const float refracted = ior * ratio;
  return camera != nullptr && std::fabs(refracted - camera->ior) < 1e-5f ? camera->ior : refracted;
}

RayRecord MakeChildRay(const RayRecord& parent, const ShadingPoint& point, Event event, Vec3 direction,
                       Vec3 throughput) {
  RayRecord child = parent;
  child.dimension = parent.dimension + 2;
  if (settings.format >= 2 && event != kEventLightSample)
    StepOn(child.points, event);  // shadows draw nothing
  child.origin = point.position;
  child.direction = direction;
  child.throughput = throughput;
  child.t = kFarthest;
  child.parentPoint = &point;
  child.part = nullptr;
  child.primitive = kNone;
  child.kind = kKindUnset;
  child.matrixDepth = child.hitMatrixDepth = 0;
  child.frontFace = child.levelZeroHit = false;
  child.parentShader = parent.shader;
  child.parentPrimitive = parent.primitive;
  child.parentPart = parent.part;
  child.parentPlace = parent.hitPlace;
  child.parentKind = parent.kind;
  child.depth = static_cast<std::uint8_t>(parent.depth + 1);
  child.event = event;
  child.previousEvent = parent.event == event ? parent.previousEvent : parent.event;
  if (settings.derived.tracksMedia && parent.kind != kKindCylinder &&
      Dot(direction, point.geometricNormal) < 0)
    CrossSurface(child, parent.shader, parent.frontFace);
  if (event < kEventSpecular) child.scattering = IsHair(point) ? kEventGlossy : event;
  return child;
}

RayRecord MakeLobeChild(const RayRecord& ray, const ShadingPoint& point, const LobeRay& way,
                        Vec3 throughput) {
  RayRecord child = MakeChildRay(ray, point, way.event, way.direction, throughput * way.weight);
  const bool glossy = way.event == kEventGlossy || way.event == kEventGlossyRefraction;
  if (way.event == kEventGlossyRefraction || way.event == kEventSpecularRefraction)
    child.ior = RefractedIor(ray.ior, point.iorRatio);
  if (glossy) {
    ++child.glossyBounces;
    return child;
  }
  child.dimension = ray.dimension;  // a mirror draws no numbers
  if (way.event == kEventSpecularRefraction && point.material == Material::kThinDielectric) {
    // A thin shell is no bounce: the ray goes on as what it was, also for lights and their links.
    child.event = ray.event;
    child.previousEvent = ray.previousEvent;
    child.parentPoint = ray.parentPoint;
    child.parentShader = ray.parentShader;
  } else {
    ++child.specularBounces;
  }
  return child;
}

RayRecord MakeFiberChild(const RayRecord& ray, const ShadingPoint& point, Vec3 throughput, Vec3& weight) {
  const float h = static_cast<float>(RandomBits()) * 4.656613e-10f - 1;
  const FiberSample way = SampleFiber(*point.fiber, point.outgoing, point.tangent, h);
  weight = way.weight;
  RayRecord child = MakeChildRay(ray, point, kEventGlossy, way.direction, throughput * weight);
  ++child.glossyBounces;
  return child;
}

namespace {

// In the frame of a point.
Vec3 LocalDirection(const RayRecord& ray, Event event, std::uint32_t sample) {
  const Vec2 draw = DrawPair(ray, sample, event);
  return CosineDirection(draw.x, draw.y);
}

}  // namespace

void DrawBeforehand(const RayRecord& ray, ShadingPoint& point) {
  point.drawn = LocalDirection(ray, kEventLambertian, ray.sampleNumber);
  point.drawnNumber = ray.sampleNumber;
  point.isDrawn = true;
}

bool DiffuseDirection(const RayRecord& ray, const ShadingPoint& point, Event event, std::uint32_t sample,
                      Vec3& direction) {
  const float side = event == kEventTransmissive ? -1.0f : 1.0f;
  const bool isDrawn = point.isDrawn && event == kEventLambertian && sample == point.drawnNumber;
  const Vec3 local = isDrawn ? point.drawn : LocalDirection(ray, event, sample);
  direction = local.x * point.tangent + local.y * point.bitangent + (side * local.z) * point.normal;
  return IsHair(point) || side * Dot(direction, point.geometricNormal) > 0;
}

LobeRays GlossyRays(const RayRecord& ray, const ShadingPoint& point, std::uint32_t sample) {
  LobeRays ways;
  const Vec2 draw = DrawPair(ray, sample, kEventGlossy);
  const Vec3 half = SampleGlossyHalf(point, draw.x, draw.y);
  const float cosine = -Dot(ray.direction, half);
  if (!(cosine > 0)) return ways;  // a facet that looks away
  if (point.material == Material::kDielectric) {
    Vec3 refracted;
    ways.total = !Refract(ray.direction, half, cosine, point.iorRatio, refracted);
    if (!ways.total && Dot(refracted, point.geometricNormal) < -1e-8f)
      ways.ways[ways.count++] = {kEventGlossyRefraction, refracted, point.diffuseWeight};
  }
  const Vec3 mirrored = ray.direction + 2 * cosine * half;
  if (Dot(mirrored, point.geometricNormal) > 0)
    ways.ways[ways.count++] = {kEventGlossy, mirrored, ways.total ? 1.0f : point.specularWeight};
  return ways;
}

LobeRays SpecularRays(const RayRecord& ray, const ShadingPoint& point) {
  LobeRays ways;
  if (point.material != Material::kConductor) {
    Vec3 refracted;
    ways.total = !Refract(ray.direction, point.normal, point.reflectCosine, point.iorRatio, refracted);
    if (!ways.total && Dot(refracted, point.geometricNormal) < -1e-8f)
      ways.ways[ways.count++] = {kEventSpecularRefraction, refracted, point.diffuseWeight};
  }
  const Vec3 mirrored = ray.direction + 2 * point.reflectCosine * point.normal;
  if (Dot(mirrored, point.geometricNormal) > 0)
    ways.ways[ways.count++] = {kEventSpecular, mirrored, ways.total ? 1.0f : point.specularWeight};
  return ways;
}

}  // namespace zp
