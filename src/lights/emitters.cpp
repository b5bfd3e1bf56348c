#include "lights/emitters.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "core/index.h"
#include "core/release.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
#include "lights/light_frame.h"

namespace zp {
namespace {

struct EmitterList {
  std::vector<Emitter> emitters;  // in the order of KeyOf: Instances last
  std::vector<Rectangle> rectangles;
  LightTree tree;

  const Rectangle* RectangleOf(const Emitter& face) const {
    return face.rectangle == kNone ? nullptr : &At(rectangles, face.rectangle);
  }
};
struct ObjectEmitters {
  EmitterList lamps;  // its virtual lights
  EmitterList faces;  // all of its faces, with their area for power
};
std::vector<ObjectEmitters> objectEmitters;                 // by Object
std::vector<std::array<ShaderEmission, 2>> shaderEmission;  // by Shader: back, front
std::uint32_t filledScene = 0;                              // the sceneNumber that they are of

auto KeyOf(std::int32_t part, std::uint8_t kind, std::uint32_t index) {
  return std::tuple(static_cast<std::uint32_t>(part), kind, index);
}

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

// The way of a receiver from the root into Instances.
struct EmitterWalk {
  LightReceiver receiver;  // in the space of `object`
  const Object* object;
  const EmitterList* list;
  std::int32_t shader = kNone;  // of the outermost Instance that has one

  explicit EmitterWalk(const LightReceiver& inScene)
      : receiver(inScene),
        object(&At(objectTable, rootObject)),
        list(&At(objectEmitters, rootObject).lamps) {}

  void Enter(const Instance& instance) {
    const Vec3 n = receiver.normal;
    const auto& m = instance.matrix.m;
    receiver.position = ToObject(instance, receiver.position);
    receiver.normal = UnitVector({m[0][0] * n.x + m[1][0] * n.y + m[2][0] * n.z,
                                  m[0][1] * n.x + m[1][1] * n.y + m[2][1] * n.z,
                                  m[0][2] * n.x + m[1][2] * n.y + m[2][2] * n.z});
    if (shader == kNone && instance.shader != kNone) {
      shader = instance.shader;
      receiver.front = EmissionOf(shader, true).power;
      receiver.back = EmissionOf(shader, false).power;
    }
    object = &At(objectTable, instance.object);
    const ObjectEmitters& placed = At(objectEmitters, instance.object);
    list = shader == kNone ? &placed.lamps : &placed.faces;
  }

  // The number of an emitter in the list; kNowhere for one that is not there.
  std::uint32_t Find(std::int32_t part, std::uint8_t kind, std::uint32_t index) const {
    const auto key = KeyOf(part, kind, index);
    const auto found =
        std::lower_bound(list->emitters.begin(), list->emitters.end(), key,
                         [](const Emitter& e, const auto& k) { return KeyOf(e.part, e.kind, e.index) < k; });
    if (found == list->emitters.end() || KeyOf(found->part, found->kind, found->index) != key)
      return kNowhere;
    return static_cast<std::uint32_t>(found - list->emitters.begin());
  }
};

// A host may have loaded another scene since.
bool HasEmitters() {
  return filledScene == sceneNumber && IsIndex(objectEmitters, rootObject) &&
         objectTable.size() == objectEmitters.size();
}

}  // namespace

const ShaderEmission& EmissionOf(std::int32_t shader, bool front) {
  static const ShaderEmission kNothing;
  return IsIndex(shaderEmission, shader) ? At(shaderEmission, shader)[front ? 1 : 0] : kNothing;
}

WorldFace InWorld(const Emitter& face, const InstanceChain& chain) {
  WorldFace world = {face.corner, face.edge1,  face.edge2,
                     face.twist,  face.normal, face.kind == kKindTetragon};
  for (int i = chain.count; i-- > 0;) {
    const Instance& instance = *At(chain.instances, i);
    const Vec3 corner = TransformPoint(instance.matrix, world.corner);
    world.edge1 = TransformPoint(instance.matrix, world.corner + world.edge1) - corner;
    world.edge2 = TransformPoint(instance.matrix, world.corner + world.edge2) - corner;
    world.twist = TransformDirection(instance.matrix, world.twist);
    world.corner = corner;
    world.normal = UnitVector(NormalMatrix(instance) * world.normal);
  }
  return world;
}

PlacedPoint PlaceOn(const WorldFace& face, Vec3 barycentric) {
  const float x = face.tetragon ? barycentric.x : barycentric.z, y = barycentric.y;
  const Vec3 along1 = face.edge1 + x * face.twist, along2 = face.edge2 + y * face.twist;
  const Vec3 product = Cross(along1, along2);
  const float area = std::sqrt(Dot(product, product));
  PlacedPoint point;
  point.position = face.corner + y * along1 + x * face.edge2;
  point.normal = area > 0 ? product / area : face.normal;
  if (Dot(point.normal, face.normal) < 0) point.normal = -point.normal;
  point.area = face.tetragon ? area : 0.5f * area;
  return point;
}

const Rectangle* InWorld(const Rectangle* rectangle, const InstanceChain& chain, Rectangle& placed) {
  if (rectangle == nullptr || chain.count == 0) return rectangle;
  Vec3 corner = rectangle->corner, end1 = corner + rectangle->length1 * rectangle->x,
       end2 = corner + rectangle->length2 * rectangle->y, normal = rectangle->normal;
  for (int i = chain.count; i-- > 0;) {
    const Instance& instance = *At(chain.instances, i);
    for (Vec3* p : {&corner, &end1, &end2}) *p = TransformPoint(instance.matrix, *p);
    normal = NormalMatrix(instance) * normal;
  }
  placed = MakeRectangle(corner, end1 - corner, end2 - corner);
  if (Dot(placed.normal, normal) < 0) placed.normal = -placed.normal;
  return placed.length1 > 0 ? &placed : nullptr;
}

bool PickFace(const LightReceiver& receiver, double number, FacePick& pick) {
  if (!HasEmitters()) return false;
  EmitterWalk walk(receiver);
  pick.probability = 1;
  for (;;) {
    LightPick one;
    if (!PickLight(walk.list->tree, walk.receiver, number, one)) return false;
    number = one.rest;
    pick.probability *= one.probability;
    const Emitter& emitter = walk.list->emitters[one.light];
    if (emitter.kind != kKindInstance) {
      if (!IsIndex(walk.object->parts, emitter.part)) return false;
      pick.face = &emitter;
      pick.part = &At(walk.object->parts, emitter.part);
      pick.shader = walk.shader == kNone ? emitter.shader : walk.shader;
      pick.rectangle = walk.list->RectangleOf(emitter);
      pick.rest = number;
      return pick.probability > 0;
    }
    if (pick.chain.count == kMostInstanceLevels || !IsIndex(walk.object->instances, emitter.index))
      return false;
    const Instance& instance = walk.object->instances[emitter.index];
    if (!IsIndex(objectEmitters, instance.object)) return false;
    At(pick.chain.instances, pick.chain.count++) = &instance;
    walk.Enter(instance);
  }
}

float EmitterDensity(const LightReceiver& receiver, const RayRecord& hit) {
  if (!HasEmitters()) return 0;
  EmitterWalk walk(receiver);
  InstanceChain chain;
  float probability = 1;
  const auto take = [&](std::int32_t part, std::uint8_t kind, std::uint32_t index) {
    const std::uint32_t found = walk.Find(part, kind, index);
    probability *= found == kNowhere ? 0.0f : PickProbability(walk.list->tree, walk.receiver, found);
    return found;
  };
  for (; chain.count < hit.hitMatrixDepth; ++chain.count) {
    const Instance& instance = HitInstance(hit, chain.count);
    At(chain.instances, chain.count) = &instance;
    take(kNone, kKindInstance, static_cast<std::uint32_t>(&instance - walk.object->instances.data()));
    if (!(probability > 0)) return 0;
    walk.Enter(instance);
  }
  const std::uint32_t found = take(static_cast<std::int32_t>(hit.part - walk.object->parts.data()), hit.kind,
                                   static_cast<std::uint32_t>(hit.primitive));
  if (!(probability > 0) || !(EmissionOf(hit.shader, hit.frontFace).power > 0)) return 0;
  const Emitter& face = walk.list->emitters[found];
  Rectangle placed;
  if (const Rectangle* rectangle = InWorld(walk.list->RectangleOf(face), chain, placed))
    if (const SeenRectangle seen = SeeRectangle(*rectangle, receiver.position); seen.solidAngle > 0)
      return probability / seen.solidAngle;
  const PlacedPoint place = PlaceOn(InWorld(face, chain), hit.barycentric);
  const Vec3 way = hit.origin + hit.t * hit.direction - receiver.position;
  const float squared = Dot(way, way), cosine = std::fabs(Dot(way, place.normal)) / std::sqrt(squared);
  return cosine > 0 ? probability * DirectionDensity(squared, cosine, place.area) : 0.0f;
}

void BuildEmitters() {
  ReleaseEmitters();
  MakeShaderEmission();
  objectEmitters.resize(objectTable.size());
  FillObjects(false);
  filledScene = sceneNumber;
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
