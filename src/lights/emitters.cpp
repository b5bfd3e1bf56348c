#include "lights/emitters.h"

#include <algorithm>
#include <cmath>

#include "core/index.h"
#include "core/release.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
#include "lights/light_frame.h"

namespace zp {
namespace {

// Mean of what windows show.
Vec3 MeanSky() {
  constexpr int kHeights = 16, kTurns = 16;
  Vec3 sum;
  for (int i = 0; i < kHeights * kTurns; ++i)
    sum += SkyRadiance(SphereDirection((static_cast<float>(i % kTurns) + 0.5f) / kTurns,
                                       (static_cast<float>(i / kTurns) + 0.5f) / kHeights));
  return sum / float{kHeights * kTurns};
}

// Grey value of what a side sends from one point, of the layers that samples serve. Without pictures where
// there is no uv.
float EmittedAt(const Shader& shader, bool front, const SurfaceUv* uv, Vec3 sky) {
  const auto read = [&](const ImageSlot& slot) { return uv == nullptr ? slot.color : LookUp(slot, *uv); };
  const auto emission = [&](const SurfaceShader& layer) {
    return layer.virtualLight ? Mean(layer.window ? sky : read(layer[Element::kEmissive])) : 0.0f;
  };
  const std::span<const std::uint8_t> layers = LayersOf(shader, front);
  float sum = 0, weights = 0;
  for (const std::uint8_t index : layers) {
    const float weight = MaxOf(Mean(read(shader.surfaces[index][Element::kWeight])), 0.0f);
    sum += weight * emission(shader.surfaces[index]);
    weights += weight;
  }
  const float mean = layers.size() > 1 && weights > 0 ? sum / weights
                     : layers.empty()                 ? 0.0f
                                                      : emission(shader.surfaces[layers[0]]);
  return mean * (uv == nullptr ? 1.0f : Opacity(shader, *uv));
}

ShaderEmission MakeEmission(const Shader& shader, bool front, Vec3 sky) {
  // Of what the colours alone promise: pictures never seem darker.
  constexpr float kLeastOfPicture = 1e-3f;
  constexpr int kGrid = 32;
  ShaderEmission result;
  if (!(front ? shader.frontVirtualLight : shader.backVirtualLight)) return result;
  const float colors = EmittedAt(shader, front, nullptr, sky);
  const std::span<const std::uint8_t> layers = LayersOf(shader, front);
  result.hasImage =
      shader.cutsOut || std::any_of(layers.begin(), layers.end(), [&](std::uint8_t index) {
        const SurfaceShader& layer = shader.surfaces[index];
        return layer[Element::kEmissive].image != kNone || layer[Element::kWeight].image != kNone;
      });
  result.power = colors;
  if (result.hasImage) {
    double sum = 0;
    for (int i = 0; i < kGrid * kGrid; ++i) {
      const SurfaceUv uv((static_cast<float>(i % kGrid) + 0.5f) / kGrid,
                         (static_cast<float>(i / kGrid) + 0.5f) / kGrid);
      sum += double{EmittedAt(shader, front, &uv, sky)};
    }
    result.power = MaxOf(static_cast<float>(sum / (kGrid * kGrid)), kLeastOfPicture * colors);
  }
  if (!(result.power > 0) || !std::isfinite(result.power))
    result.power = colors > 0 ? MinOf(colors, 1e30f) : 0.0f;
  const SurfaceShader& layer = shader.surfaces[layers[0]];
  const ImageSlot& ior = layer[Element::kIor];
  result.isPlain = layers.size() == 1 && !result.hasImage && !layer.window && ior.image == kNone &&
                   IsSameMedium(Mean(ior.color), 1);
  result.radiance = layer[Element::kEmissive].color;
  return result;
}

void MakeShaderEmission() {
  shaderEmission.clear();
  const Vec3 sky = MeanSky();
  for (const Shader& shader : shaders)
    shaderEmission.push_back({MakeEmission(shader, false, sky), MakeEmission(shader, true, sky)});
}

// What a side of a face sends from each unit of its area. Of pictures half by what they show there.
float PowerOfFace(const Part& part, const Emitter& face, bool front) {
  const ShaderEmission& emission = EmissionOf(face.shader, front);
  if (!emission.hasImage || !(emission.power > 0)) return emission.power;
  float sum = 0;
  for (const Vec2 place : {Vec2{0.25f, 0.25f}, Vec2{0.25f, 0.75f}, Vec2{0.75f, 0.25f}, Vec2{0.75f, 0.75f}}) {
    const SurfaceUv uv =
        CornerUv(HitCorners(part, face.kind, face.index, Barycentric(face.kind, place.x, place.y)), part);
    sum += MaxOf(EmittedAt(ShaderAt(face.shader), front, &uv, kWhite), 0.0f);
  }
  return 0.5f * (MinOf(0.25f * sum, 1e30f) + emission.power);
}

void FillFace(const Object& object, Emitter& face) {
  const Part& part = At(object.parts, face.part);
  const bool tetragon = face.kind == kKindTetragon;
  const std::uint32_t* const v =
      tetragon ? part.tetragons[face.index].vertex : part.triangles[face.index].vertex;
  face.shader = tetragon ? part.tetragons[face.index].shader : part.triangles[face.index].shader;
  face.corner = part.positions[v[0]];
  face.edge1 = part.positions[v[1]] - face.corner;
  face.edge2 = part.positions[v[tetragon ? 3 : 2]] - face.corner;
  if (tetragon) face.twist = part.positions[v[2]] - face.corner - face.edge1 - face.edge2;
  const Vec3 product = Cross(face.edge1, face.edge2);
  face.normal = UnitVector(product);
  face.area = (tetragon ? 1.0f : 0.5f) * std::sqrt(Dot(product, product));
  if (face.twist != kBlack) face.area = TetragonArea(part, face.index);
}

void FillRectangle(Emitter& face, std::vector<Rectangle>& rectangles) {
  constexpr float kTolerance = 1e-8f;  // squared
  const float size = MinOf(Dot(face.edge1, face.edge1), Dot(face.edge2, face.edge2));
  if (face.kind != kKindTetragon || !(Dot(face.twist, face.twist) <= kTolerance * size)) return;
  const Rectangle rectangle = MakeRectangle(face.corner, face.edge1, face.edge2);
  if (!(rectangle.length1 > 0)) return;
  face.rectangle = static_cast<std::int32_t>(rectangles.size());
  rectangles.push_back(rectangle);
}

LightBounds BoundsOfFace(const Object& object, const Emitter& face, bool byArea) {
  LightBounds bounds;
  if (!(face.area > 0) || !std::isfinite(face.area)) return bounds;
  for (const Vec3 p : {face.corner, face.corner + face.edge1, face.corner + face.edge2}) Grow(bounds.box, p);
  if (face.kind == kKindTetragon) Grow(bounds.box, face.corner + face.edge1 + face.edge2 + face.twist);
  bounds.axis = face.normal;
  const Part& part = At(object.parts, face.part);
  bounds.front = byArea ? face.area : face.area * PowerOfFace(part, face, true);
  bounds.back = byArea ? face.area : face.area * PowerOfFace(part, face, false);
  return bounds;
}

// Whether the matrix turns, moves, mirrors and scales evenly, no more: then it keeps angles.
bool KeepsAngles(const Mat4& matrix) {
  constexpr float kEven = 1e-3f;
  const auto column = [&](int j) { return Vec3{matrix.m[0][j], matrix.m[1][j], matrix.m[2][j]}; };
  const Vec3 x = column(0), y = column(1), z = column(2);
  const float size = Dot(x, x), most = kEven * size;
  return std::fabs(Dot(y, y) - size) < most && std::fabs(Dot(z, z) - size) < most &&
         std::fabs(Dot(x, y)) < most && std::fabs(Dot(y, z)) < most && std::fabs(Dot(z, x)) < most;
}

// `scale`: of areas.
LightBounds BoundsOfInstance(const Instance& instance, float scale, bool byArea) {
  const ObjectEmitters& placed = At(objectEmitters, instance.object);
  const bool overrides = instance.shader != kNone && !byArea;
  const LightBounds& whole = (overrides || byArea ? placed.faces : placed.lamps).tree.whole;
  LightBounds bounds;
  if (IsEmpty(whole.box)) return bounds;
  for (int corner = 0; corner < 8; ++corner)
    Grow(bounds.box, TransformPoint(instance.matrix, {(corner & 1) ? whole.box.max.x : whole.box.min.x,
                                                      (corner & 2) ? whole.box.max.y : whole.box.min.y,
                                                      (corner & 4) ? whole.box.max.z : whole.box.min.z}));
  bounds.cosine = KeepsAngles(instance.matrix) ? whole.cosine : -1;
  bounds.axis = UnitVector(NormalMatrix(instance) * whole.axis);
  bounds.front = scale * whole.front * (overrides ? EmissionOf(instance.shader, true).power : 1.0f);
  bounds.back = scale * whole.back * (overrides ? EmissionOf(instance.shader, false).power : 1.0f);
  return bounds;
}

// `records`: with one for each side, one after the other.
void FillList(const Object& object, const EmissionList& records, bool byArea, EmitterList& list) {
  std::vector<LightBounds> bounds;
  list.emitters.clear();
  list.rectangles.clear();
  const auto isSame = [](const EmissionRecord& a, const EmissionRecord& b) {
    return KeyOf(a.part, a.kind, a.index) == KeyOf(b.part, b.kind, b.index);
  };
  std::size_t count = records.records.empty() ? 0 : 1;
  for (std::size_t i = 1; i < records.records.size(); ++i)
    count += !isSame(records.records[i - 1], records.records[i]);
  list.emitters.reserve(count);
  bounds.reserve(count);
  for (const EmissionRecord& record : records.records) {
    Emitter emitter;
    emitter.part = record.part;
    emitter.kind = record.kind;
    emitter.index = record.index;
    if (!list.emitters.empty()) {
      const Emitter& last = list.emitters.back();
      if (KeyOf(last.part, last.kind, last.index) == KeyOf(record.part, record.kind, record.index)) continue;
    }
    if (!Holds(object, {static_cast<std::uint16_t>(std::max(record.part, 0)), record.kind, record.index}))
      continue;
    if (record.kind == kKindInstance) {
      const Instance& instance = object.instances[record.index];
      if (!IsIndex(objectEmitters, instance.object)) continue;
      const Object& placed = At(objectTable, instance.object);
      const float area = byArea || instance.shader != kNone ? placed.faces.area : placed.virtualLights.area;
      bounds.push_back(area > 0 ? BoundsOfInstance(instance, record.area / area, byArea) : LightBounds{});
    } else {
      FillFace(object, emitter);
      FillRectangle(emitter, list.rectangles);
      bounds.push_back(BoundsOfFace(object, emitter, byArea));
    }
    list.emitters.push_back(emitter);
  }
  RefitLightTree(list.tree, bounds);
}

// Deepest Objects first: an Instance is as bright as what it places. `moved`: only what may have changed.
void FillObjects(bool moved) {
  int level = 0;
  for (const Object& object : objectTable) level = std::max(level, object.level);
  for (; level >= 0; --level)
    for (std::size_t i = 0; i < objectTable.size(); ++i) {
      const Object& object = objectTable[i];
      if (object.level != level || (moved && !object.deformable)) continue;
      FillList(object, object.virtualLights, false, objectEmitters[i].lamps);
      FillList(object, object.faces, true, objectEmitters[i].faces);
    }
}

}  // namespace

std::vector<ObjectEmitters> objectEmitters;
std::vector<std::array<ShaderEmission, 2>> shaderEmission;
std::uint32_t emittersScene = 0;

void BuildEmitters() {
  ReleaseEmitters();
  MakeShaderEmission();
  objectEmitters.resize(objectTable.size());
  FillObjects(false);
  emittersScene = sceneNumber;
}

void ReleaseEmitters() {
  Release(objectEmitters);
  Release(shaderEmission);
}

void MoveEmitters() {
  if (settings.format < 2 || !IsIndex(objectTable, rootObject)) return;
  const Object& root = At(objectTable, rootObject);
  geometryLight.area = root.virtualLights.area;
  if (geometryLight.sample <= 0) return;
  if (!HasEmitters())
    BuildEmitters();
  else if (root.deformable)
    FillObjects(true);
}

}  // namespace zp
