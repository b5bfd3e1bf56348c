// Picking emitters for a receiver, and drawing points on them: direct light of format 2.

#include <algorithm>
#include <cmath>

#include "accel/accel.h"
#include "core/index.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "lights/emitters.h"
#include "lights/light_frame.h"
#include "lights/lights.h"
#include "lights/seen_rectangle.h"

namespace zp {
namespace {

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

// The Instances around a face, outermost first.
struct InstanceChain {
  std::array<const Instance*, kMostInstanceLevels> instances;
  int count = 0;
};

// The face as it stands in the scene.
struct WorldFace {
  Vec3 corner, edge1, edge2, twist, normal;
  bool tetragon = false;
};
// A point by its barycentric coordinates, the normal there, and by how much area a unit of the square that it
// was drawn from is larger there.
struct PlacedPoint {
  Vec3 position, normal;
  float area;
};
// Of a point that is uniform by the unit square, per solid angle.
float DirectionDensity(float squaredDistance, float cosine, float area) {
  return squaredDistance / (cosine * area);
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

// The same of a rectangle; null where the Instances make it another shape. `placed` may hold the result.
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

struct FacePick {
  const Emitter* face = nullptr;
  const Rectangle* rectangle = nullptr;  // the face as one, in its own space; null if it is none
  const Part* part = nullptr;
  InstanceChain chain;
  std::int32_t shader = kNone;  // the face's, or that of the Instance that overrides it
  float probability = 0;
  double rest = 0;  // see LightPick
};
// The face under a number in [0, 1), as LightPick has it. False where nothing shines for the receiver.
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

float LargestSize(Vec3 v) { return MaxOf(MaxOf(std::fabs(v.x), std::fabs(v.y)), std::fabs(v.z)); }

// As near to an emitter as rounding may move its surface along the way, so that what stands close to it casts
// its shadow.
float LengthToEmitter(Vec3 from, Vec3 to, float distance, float cosine) {
  constexpr float kRounding = 4e-6f;  // of a point that went through Instances, in parts of its coordinates
  return MaxOf(distance - kRounding * MaxOf(LargestSize(from), LargestSize(to)) / cosine, 0.9f * distance);
}

// What a point sees of a face, where that was sampled.
struct FaceView {
  Vec3 direction;          // unit
  float distance, cosine;  // of the direction and the face's normal, without its sign
  float area;              // steradian: the reciprocal of the density
  bool front;              // it is the face's front
  Vec3 normal;
  Vec2 place, size = {1, 1};  // in the square that the face takes as PlaceOn does, and how large that is
};

FaceView ViewOf(const Rectangle& rectangle, const SeenRectangle& seen, float u, float v) {
  const RectangleView view = DrawOnRectangle(rectangle, seen, u, v);
  return {view.direction,
          view.distance,
          view.cosine,
          seen.solidAngle,
          seen.plane < 0,
          rectangle.normal,
          {view.x - seen.x0, view.y - seen.y0},
          {rectangle.length1, rectangle.length2}};
}

// Rectangles by solid angle: by area, walls close to a lamp are noisy.
FaceView ViewFace(const FacePick& pick, Vec3 from, float a, float b, const Meanwhile& meanwhile) {
  Rectangle placed;
  if (const Rectangle* rectangle = InWorld(pick.rectangle, pick.chain, placed)) {
    const SeenRectangle seen = SeeRectangle(*rectangle, from);
    meanwhile.Do();
    if (seen.solidAngle > 0) return ViewOf(*rectangle, seen, a, b);
  }
  const PlacedPoint place = PlaceOn(InWorld(*pick.face, pick.chain), Barycentric(pick.face->kind, a, b));
  const Vec3 way = place.position - from;
  const float squared = Dot(way, way), distance = std::sqrt(squared);
  const Vec3 direction = way / distance;
  const float along = Dot(direction, place.normal), cosine = std::fabs(along);
  return {direction, distance,     cosine, 1 / DirectionDensity(squared, cosine, place.area),
          along < 0, place.normal, {a, b}};
}

// Of a side that is not the same everywhere. Not inlined: most are.
[[gnu::noinline]] Vec3 VaryingEmission(const FacePick& pick, const FaceView& view, Vec3 position) {
  ShadingPoint point;
  const Emitter& emitter = *pick.face;
  const Vec3 barycentric = Barycentric(emitter.kind, view.place.x / view.size.x, view.place.y / view.size.y);
  point.uv = CornerUv(HitCorners(*pick.part, emitter.kind, emitter.index, barycentric), *pick.part);
  point.position = position;
  point.outgoing = -view.direction;
  point.normal = point.geometricNormal = view.front ? view.normal : -view.normal;
  AxesAround(point.normal, point.tangent, point.bitangent);
  return SampledEmission(ShaderAt(pick.shader), view.front, point);
}

}  // namespace

bool SampleEmitters(const LightReceiver& receiver, double choice, float b, const Meanwhile& meanwhile,
                    LightSample& sample) {
  FacePick pick;
  if (!PickFace(receiver, choice, pick)) return false;
  const FaceView view = ViewFace(pick, receiver.position, UnitNumber(pick.rest), b, meanwhile);
  const ShaderEmission& emission = EmissionOf(pick.shader, view.front);
  if (!(view.cosine > 0) || !(emission.power > 0) || !std::isfinite(view.distance) || !HasShader(pick.shader))
    return false;

  const Vec3 position = receiver.position + view.distance * view.direction;
  sample.direction = view.direction;
  sample.shader = pick.shader;
  sample.radiance = emission.isPlain ? emission.radiance : VaryingEmission(pick, view, position);
  sample.distance = LengthToEmitter(receiver.position, position, view.distance, view.cosine);
  sample.pdf = pick.probability / view.area;
  sample.factor = view.area / (kPi * pick.probability);
  return sample.radiance != kBlack && std::isfinite(sample.pdf) && std::isfinite(sample.factor);
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

}  // namespace zp
