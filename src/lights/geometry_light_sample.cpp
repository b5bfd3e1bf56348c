// Drawing points on emissive surfaces: for direct light, and as starts of photons.

#include <algorithm>

#include "accel/accel.h"
#include "core/index.h"
#include "core/random.h"
#include "core/settings.h"
#include "core/tables.h"
#include "geometry/geometry.h"
#include "lights/emitters.h"
#include "lights/light_frame.h"
#include "lights/light_photons.h"
#include "lights/lights.h"
#include "lights/seen_rectangle.h"
#include "shading/directions.h"

namespace zp {
namespace {

Mat4 Product(const Mat4& a, const Mat4& b) {
  Mat4 result;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j)
      result.m[i][j] =
          a.m[i][0] * b.m[0][j] + a.m[i][1] * b.m[1][j] + a.m[i][2] * b.m[2][j] + a.m[i][3] * b.m[3][j];
  return result;
}

Mat4 WithoutMove(const Mat3& a) {
  Mat4 result;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) result.m[i][j] = a.m[i][j];
  return result;
}

// Takes the record under r in [0, 1); kNone in an empty list. In format 2 it leaves in r where that lies in
// the record; format 1 searches by floats, and draws anew in each Instance.
std::int32_t TakeRecord(const EmissionList& list, double& r) {
  if (list.shares.empty()) return UpperBound(list.distribution, static_cast<float>(r));
  const auto above = std::upper_bound(list.shares.begin(), list.shares.end() - 1, r);
  const double begin = above == list.shares.begin() ? 0 : *(above - 1);
  r = *above > begin ? std::clamp((r - begin) / (*above - begin), 0.0, 1.0) : 0.0;
  return static_cast<std::int32_t>(above - list.shares.begin());
}

// Finishes a pick with a record that is no Instance. False for one that the Object does not hold.
bool TakePrimitive(const Object& object, const EmissionRecord& record, EmitterPick& pick) {
  if (!IsIndex(object.parts, record.part)) return false;
  pick.part = &At(object.parts, record.part);
  pick.kind = record.kind;
  pick.index = record.index;
  std::int32_t shader = kNone;
  if (record.kind == kKindTriangle && record.index < pick.part->triangles.size())
    shader = pick.part->triangles[record.index].shader;
  else if (record.kind == kKindTetragon && record.index < pick.part->tetragons.size())
    shader = pick.part->tetragons[record.index].shader;
  else
    return false;
  if (pick.shader == kNone) pick.shader = shader;
  return HasShader(pick.shader) && !ShaderAt(pick.shader).surfaces.empty();
}

// The Shader of a pick that PickEmitter has filled.
const Shader& ShaderOf(const EmitterPick& pick) { return ShaderAt(pick.shader); }

// Sum of what all layers of the emitting side emit: the light of photons in format 1.
Vec3 SummedEmission(const Shader& shader, bool front, const SurfaceUv& uv) {
  Vec3 sum;
  for (const std::uint8_t layer : LayersOf(shader, front))
    sum += LookUp(shader.surfaces[layer][Element::kEmissive], uv);
  return sum;
}

Vec3 FaceNormal(const Part& part, const Corners& corners) {
  const auto p = [&](int i) { return part.positions[corners.vertex[i]]; };
  return UnitVector(corners.count == 4 ? Cross(p(2) - p(0), p(3) - p(1)) : Cross(p(1) - p(0), p(2) - p(0)));
}

// World area that a unit of the square of (a, b) covers where PlaceOnEmitter puts that point.
float AreaElement(const EmitterPick& pick, float a, float b) {
  const Corners corners = HitCorners(*pick.part, pick.kind, pick.index, Barycentric(pick.kind, a, b));
  const float* const w = corners.weight;
  Vec3 p[4];
  for (int i = 0; i < corners.count; ++i) {
    p[i] = pick.part->positions[corners.vertex[i]];
    if (pick.placed) p[i] = TransformPoint(pick.toWorld, p[i]);
  }
  const Vec3 product = corners.count == 4
                           ? Cross((w[0] + w[1]) * (p[1] - p[0]) + (w[2] + w[3]) * (p[2] - p[3]),
                                   (w[0] + w[3]) * (p[3] - p[0]) + (w[1] + w[2]) * (p[2] - p[1]))
                           : 0.5f * Cross(p[1] - p[0], p[2] - p[0]);
  return std::sqrt(Dot(product, product));
}

// What the eye sees of the point in `direction`, by one of its layers: `point` is placed, without a layer.
Vec3 SeenEmission(const Shader& shader, bool front, Vec3 direction, ShadingPoint& point) {
  point.outgoing = direction;
  FinishShadingPoint(point, shader, front);
  return point.diffuseWeight * (point.layer->window ? SkyRadiance(-direction)
                                                    : LookUp((*point.layer)[Element::kEmissive], point.uv));
}

}  // namespace

// Only the first draw is stratified. Double precision keeps a million strata apart.
double StratifiedNumber(std::uint32_t i, std::uint32_t n) {
  const std::uint32_t strata = std::max(n, 1U);
  return (static_cast<double>(RandomBits()) * 0x1p-32 + i % strata) / strata;
}

bool PickEmitter(bool virtualLights, double r, EmitterPick& pick) {
  pick = {};
  pick.weight = 1;
  std::int32_t index = rootObject;
  bool anyFace = false;  // in format 2, below an Instance whose Shader lets all of them emit
  for (int level = 0; level <= kMostInstanceLevels; ++level) {
    if (!IsIndex(objectTable, index)) return false;
    const Object& object = At(objectTable, index);
    const EmissionList& list =
        anyFace ? object.faces : (virtualLights ? object.virtualLights : object.emitters);
    const std::int32_t found = TakeRecord(list, r);
    if (!IsIndex(list.records, found)) return false;
    const EmissionRecord& record = At(list.records, found);
    if (!anyFace) pick.side = record.side;
    pick.weight *= At(list.distribution.weights, found);
    if (!(pick.weight > 0)) return false;
    if (record.kind != kKindInstance) return TakePrimitive(object, record, pick);

    if (record.index >= object.instances.size()) return false;
    const Instance& instance = object.instances[record.index];
    if (!CanBeHit(instance)) return false;                    // its matrix is of no use: nothing would hit it
    if (pick.shader == kNone) pick.shader = instance.shader;  // the outermost override holds, as in hits
    anyFace = settings.format >= 2 && pick.shader != kNone;
    pick.toWorld = Product(pick.toWorld, instance.matrix);
    pick.normalToWorld = Product(pick.normalToWorld, WithoutMove(NormalMatrix(instance)));
    pick.place = PlaceInside(pick.place, instance);
    pick.placed = true;
    index = instance.object;
    if (list.shares.empty()) r = static_cast<double>(RandomBits()) * 0x1p-32;
  }
  return false;
}

void PlaceOnEmitter(const EmitterPick& pick, float a, float b, ShadingPoint& point) {
  const Part& part = *pick.part;
  const Corners corners = HitCorners(part, pick.kind, pick.index, Barycentric(pick.kind, a, b));
  point.position = kBlack;
  for (int i = 0; i < corners.count; ++i)
    point.position += corners.weight[i] * part.positions[corners.vertex[i]];
  point.geometricNormal = FaceNormal(part, corners);
  point.uv = CornerUv(corners, part);
  if (pick.placed) {
    point.position = TransformPoint(pick.toWorld, point.position);
    point.geometricNormal = UnitVector(TransformDirection(pick.normalToWorld, point.geometricNormal));
  }
  point.normal = point.geometricNormal;
  AxesAround(point.normal, point.tangent, point.bitangent);
  if (pick.side != 0) return;
  point.geometricNormal = -point.geometricNormal;
  point.normal = -point.normal;
  point.tangent = -point.tangent;
  point.bitangent = -point.bitangent;
}

Vec3 SampledEmission(const Shader& shader, bool front, ShadingPoint& point) {
  point.layer = &ChooseLayer(shader, front, point.uv);
  if (!point.layer->virtualLight) return kBlack;
  FinishShadingPoint(point, shader, front);
  const Vec3 emission = point.layer->window ? SkyRadiance(-point.outgoing)
                                            : LookUp((*point.layer)[Element::kEmissive], point.uv);
  return (Opacity(shader, point.uv) * point.diffuseWeight) * emission;
}

namespace {

bool SampleByArea(Vec3 position, double choice, float a, float b, LightSample& sample) {
  EmitterPick pick;
  if (!PickEmitter(true, choice, pick)) return false;
  ShadingPoint point;
  PlaceOnEmitter(pick, a, b, point);
  const Vec3 toReceiver = position - point.position;
  const float squared = Dot(toReceiver, toReceiver);
  point.outgoing = UnitVector(toReceiver);
  const float cosine = Dot(point.outgoing, point.geometricNormal);
  if (!(cosine > 0) || !(squared > 0) || !std::isfinite(squared)) return false;

  sample.direction = -point.outgoing;
  sample.shader = pick.shader;
  sample.radiance = SampledEmission(ShaderOf(pick), pick.side != 0, point);
  // Shadow rays end this share of the way before an emitter, which would block its own light.
  constexpr float kShortOfEmitter = 1e-4f;
  sample.distance = std::sqrt(squared) * (1 - kShortOfEmitter);
  sample.pdf = squared / (cosine * geometryLight.area);
  // Intended: the constant is a part of the rule that weights samples of this light, with a pi of its own.
  constexpr float kGeometryFactorScale = 18481.0f;
  sample.factor = cosine / (squared * kGeometryFactorScale * pick.weight);
  return !IsBlack(sample.radiance) && std::isfinite(sample.pdf) && std::isfinite(sample.factor);
}

}  // namespace

bool SampleGeometryLight(const LightReceiver& receiver, double choice, float a, float b, LightSample& sample,
                         const Meanwhile& meanwhile) {
  return settings.format >= 2 ? SampleEmitters(receiver, choice, b, meanwhile, sample)
                              : SampleByArea(receiver.position, choice, a, b, sample);
}

void MakeGeometryPhotonRay(RayRecord& ray, std::uint32_t sample) {
  const PhotonNumbers numbers(sample);
  const Vec2 place = numbers.First(), way = numbers.Second();
  StartPhotonRay(ray, numbers, 4, 1);
  EmitterPick pick;
  const auto photons = static_cast<std::uint32_t>(std::max(PhotonsOf(geometryLight.photon), 1));
  // Without an emitter the ray has no power, and nobody follows it.
  if (!PickEmitter(false, StratifiedNumber(sample, photons), pick)) return;
  ShadingPoint point;
  PlaceOnEmitter(pick, place.x, place.y, point);
  if (point.normal == kBlack) return;  // a face without an area
  const Vec3 local = CosineDirection(way.x, way.y);
  ray.origin = point.position;
  ray.direction = local.x * point.tangent + local.y * point.bitangent + local.z * point.normal;
  const Shader& shader = ShaderOf(pick);
  const bool front = pick.side != 0;
  if (settings.format >= 2) {
    const float area = AreaElement(pick, place.x, place.y);
    ray.photonPower = (Opacity(shader, point.uv) * area / (pick.weight * static_cast<float>(photons))) *
                      SeenEmission(shader, front, ray.direction, point);
    ray.photonStore = point.virtualLight;
  } else {
    ray.photonPower = SummedEmission(shader, front, point.uv) * geometryLight.colorWeight;
    ray.photonStore = front ? shader.frontVirtualLight : shader.backVirtualLight;
  }
  ray.parentShader = pick.shader;
  ray.parentPart = pick.part;
  ray.parentPlace = pick.place;
  ray.parentKind = pick.kind;
  ray.parentPrimitive = static_cast<std::int32_t>(pick.index);
}

}  // namespace zp
