#include <bit>
#include <new>

#include "core/console.h"
#include "core/index.h"
#include "core/random.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/threads.h"
#include "core/validate.h"
#include "geometry/displace_patch.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "shading/shading.h"

namespace zp {
namespace {

// What 32-bit indices can hold, with one left over as a mark; and three corners of each triangle are
// counted, too.
constexpr std::uint64_t kMostVertices = 0xFFFFFFFEU;
constexpr std::uint64_t kMostTriangles = kMostVertices / 3;

// One displacement of a Shader. Those by height, along the normal, follow those by vector; in format 1 there
// are none.
struct Layer {
  const ImageSlot* slot = nullptr;
  bool isHeight = false;
};

std::size_t CountLayers(const GeometryShader& geometry) {
  return geometry.vector.size() + (settings.format >= 2 ? geometry.height.size() : 0);
}

// Without a slot where the Shader has no such layer.
Layer FindLayer(std::int32_t shader, std::size_t pass) {
  if (!HasShader(shader) || pass >= CountLayers(ShaderAt(shader).geometry)) return {};
  const GeometryShader& geometry = ShaderAt(shader).geometry;
  const std::size_t vectors = geometry.vector.size();
  if (pass < vectors) return {&geometry.vector[pass], false};
  return {&geometry.height[pass - vectors], true};
}

std::size_t CountPasses(const Part& part) {
  std::size_t passes = 0;
  const auto consider = [&](std::int32_t shader) {
    if (HasShader(shader)) passes = std::max(passes, CountLayers(ShaderAt(shader).geometry));
  };
  for (const Triangle& triangle : part.triangles) consider(triangle.shader);
  for (const Tetragon& tetragon : part.tetragons) consider(tetragon.shader);
  return passes;
}

void SplitTetragons(Part& part) {
  part.triangles.reserve(part.triangles.size() + 2 * part.tetragons.size());
  for (const Tetragon& tetragon : part.tetragons) {
    const auto& v = tetragon.vertex;
    part.triangles.push_back({{v[0], v[1], v[2]}, tetragon.shader});
    part.triangles.push_back({{v[2], v[3], v[0]}, tetragon.shader});
  }
  Release(part.tetragons);
}

// Where one triangle's share of a pass goes. Known before any of it is computed, so that the order of the
// result does not depend on threads, and every thread writes to its final place.
struct Slice {
  std::uint32_t vertex = 0;    // its first new vertex
  std::uint32_t triangle = 0;  // its first new triangle; of a kept one, its place
  std::int32_t level = 0;      // 0: kept as it is
};

struct PassPlan {
  std::vector<Slice> slices;
  std::uint64_t vertices = 0;   // old and new
  std::uint64_t triangles = 0;  // kept, then new
};

// False when the result would not fit in 32-bit indices.
bool PlanPass(const Part& part, std::size_t pass, PassPlan& plan) {
  const auto count = static_cast<std::int64_t>(part.triangles.size());
  plan.slices.resize(part.triangles.size());
  std::uint64_t kept = 0;
#pragma omp parallel for schedule(static) reduction(+ : kept) if (IsWorthThreads(part.triangles.size(), 10))
  for (std::int64_t i = 0; i < count; ++i) {
    const Triangle& triangle = At(part.triangles, i);
    const ImageSlot* layer = FindLayer(triangle.shader, pass).slot;
    bool refined = layer != nullptr;
    for (const std::uint32_t v : triangle.vertex)
      refined = refined && !IsZero(part.normals[v]) && !IsZero(part.tangents[v]);
    // A level below 1 would leave a hole where the triangle was.
    At(plan.slices, i).level = refined ? std::max(layer->level, 1) : 0;
    kept += refined ? 0 : 1;
  }
  plan.vertices = part.positions.size();
  plan.triangles = kept;
  std::uint32_t place = 0;
  for (Slice& slice : plan.slices) {
    if (slice.level == 0) {
      slice.triangle = place++;
      continue;
    }
    const auto level = static_cast<std::uint64_t>(slice.level);
    slice.vertex = static_cast<std::uint32_t>(plan.vertices);
    slice.triangle = static_cast<std::uint32_t>(plan.triangles);
    plan.vertices += LatticePoints(level);
    plan.triangles += LatticeTriangles(level);
    if (plan.vertices > kMostVertices || plan.triangles > kMostTriangles) return false;
  }
  return true;
}

// Makes room in all arrays of the vertices, empty sets apart. False, with the Part as it was, when there is
// not enough memory.
bool GrowArrays(Part& part, const PassPlan& plan, RawVector<Triangle>& triangles) {
  const std::size_t old = part.positions.size();
  const auto forEachArray = [&](auto&& visit) {
    visit(part.positions);
    visit(part.normals);
    visit(part.tangents);
    visit(part.endNormals);
    visit(part.endTangents);
    for (auto& set : part.scalarSets) visit(set.values);
    for (auto& set : part.uvSets) visit(set.values);
    for (auto& set : part.vectorSets) visit(set.values);
  };
  try {
    triangles.reserve(plan.triangles);
    forEachArray([&](auto& array) {
      if (!array.empty()) array.reserve(plan.vertices);
    });
  } catch (const std::bad_alloc&) {
    return false;
  }
  triangles.resize(plan.triangles);
  forEachArray([&](auto& array) {
    if (array.empty()) return;
    array.resize(old);  // validated Parts have it already
    array.resize(plan.vertices);
  });
  return true;
}

// Both sides of an edge must draw the same numbers, whichever thread and whichever pass over the scene: the
// generator is keyed from the point's uv, for as long as this lives.
class DrawFromUv {
 public:
  explicit DrawFromUv(Vec2 uv) : kept_(randomState) {
    const auto bits = [](float x) { return std::uint64_t{std::bit_cast<std::uint32_t>(x + 0.0f)}; };
    std::uint64_t key = (bits(uv.x) << 32U | bits(uv.y)) + 0x9e3779b97f4a7c15ULL;
    key = (key ^ (key >> 30U)) * 0xbf58476d1ce4e5b9ULL;
    key = (key ^ (key >> 27U)) * 0x94d049bb133111ebULL;
    randomState.state = key ^ (key >> 31U);
    randomState.keyed = true;
  }
  ~DrawFromUv() { randomState = kept_; }
  DrawFromUv(const DrawFromUv&) = delete;
  DrawFromUv& operator=(const DrawFromUv&) = delete;

 private:
  RandomState kept_;
};

// How far a layer moves a point, in scene units. An image counts from mid-grey. `hand`: -1 where the
// bitangent is minus the product of normal and tangent, else 1.
Vec3 Offset(const Layer& layer, Vec2 uv, PackedVector packedNormal, PackedVector packedTangent, float hand) {
  const ImageSlot& slot = *layer.slot;
  Vec3 amount = slot.color;
  if (IsIndex(images, slot.image)) {
    const DrawFromUv draws(uv);
    const Vec3 texel = LookUpTexture(At(images, slot.image), slot, uv);
    amount = (texel - Vec3{0.5f, 0.5f, 0.5f}) * slot.color;
  }
  const Vec3 normal = SafeNormalize(Unpack(packedNormal)), tangent = SafeNormalize(Unpack(packedTangent));
  if (layer.isHeight) return Mean(amount) * normal;
  if (slot.direction != Vec3{}) return slot.direction * amount;
  return amount.x * tangent - (hand * amount.y) * Cross(normal, tangent) + amount.z * normal;
}

// Computes what the plan gave one triangle room for.
class Refiner {
 public:
  Refiner(Part& part, const Layer& layer, const Triangle& triangle)
      : part_(part), layer_(layer), triangle_(triangle) {
    OrderCorners(part, triangle, order_);
    for (auto& set : part.vectorSets)
      if (motion_ == nullptr && set.name == "motion") motion_ = &set;
    for (int c = 0; c < 3; ++c) {
      const std::uint32_t v = triangle.vertex[c];
      normals_[c] = SafeNormalize(Unpack(part.normals[v]));
      tangents_[c] = SafeNormalize(Unpack(part.tangents[v]));
      corners_[c] = {part.positions[v], normals_[c]};
      if (part.endNormals.empty()) continue;
      endNormals_[c] = SafeNormalize(Unpack(part.endNormals[v]));
      endTangents_[c] = SafeNormalize(Unpack(part.endTangents[v]));
      endCorners_[c] = {part.positions[v] + motion_->values[v], endNormals_[c]};
    }
    if (part.mirroredUvs && IsMirrored(part, triangle.vertex)) hand_ = -1;
    if (!part.uvSets.empty()) uvs_ = &UvSetOf(part, layer.slot->uvSet).values;
  }

  void WriteVertices(const Slice& slice) {
    std::size_t vertex = slice.vertex;
    for (int r = 0; r <= slice.level; ++r)
      for (int j = 0; j <= r; ++j) {
        const int share[3] = {slice.level - r, r - j, j};
        WriteVertex(vertex++, MakeBlend(share, slice.level, order_));
      }
  }

 private:
  void WriteVertex(std::size_t vertex, const Blend& blend) {
    part_.normals[vertex] = Pack(BlendValues(normals_, blend));
    part_.tangents[vertex] = Pack(BlendValues(tangents_, blend));
    for (auto& set : part_.scalarSets) WriteValue(set.values, vertex, blend);
    for (auto& set : part_.uvSets) WriteValue(set.values, vertex, blend);
    for (auto& set : part_.vectorSets) WriteValue(set.values, vertex, blend);

    // What overflows falls back to the flat triangle, and what a layer sends to infinity stays.
    Vec3 position = PatchPoint(corners_, blend);
    if (!IsFinite(position)) {
      WriteValue(part_.positions, vertex, blend);
      position = part_.positions[vertex];
    }
    const Vec2 uv = uvs_ != nullptr && !uvs_->empty() ? (*uvs_)[vertex] : Vec2{};
    const Vec3 moved = position + Offset(layer_, uv, part_.normals[vertex], part_.tangents[vertex], hand_);
    if (!part_.endNormals.empty()) WriteMotion(vertex, blend, uv, moved);
    // The sum with 0 leaves no negative zeros: positions are compared by their bits.
    part_.positions[vertex] = (IsFinite(moved) ? moved : position) + Vec3{0, 0, 0};
  }

  // The same when the shutter closes, and the way there; what leads nowhere moves as the triangle does.
  void WriteMotion(std::size_t vertex, const Blend& blend, Vec2 uv, Vec3 start) {
    part_.endNormals[vertex] = Pack(BlendValues(endNormals_, blend));
    part_.endTangents[vertex] = Pack(BlendValues(endTangents_, blend));
    const Vec3 end = PatchPoint(endCorners_, blend) +
                     Offset(layer_, uv, part_.endNormals[vertex], part_.endTangents[vertex], hand_);
    if (IsFinite(end) && IsFinite(start)) motion_->values[vertex] = end - start;
  }

  template <class T>
  void WriteValue(std::vector<T>& values, std::size_t vertex, const Blend& blend) {
    if (values.empty()) return;
    const T ofCorners[3] = {values[triangle_.vertex[0]], values[triangle_.vertex[1]],
                            values[triangle_.vertex[2]]};
    values[vertex] = BlendValues(ofCorners, blend);
  }

  Part& part_;
  const Layer& layer_;
  const std::vector<Vec2>* uvs_ = nullptr;  // by which the layer's picture is read
  const Triangle& triangle_;
  VertexSet<Vec3>* motion_ = nullptr;  // of a Part with end vectors
  PatchCorner corners_[3], endCorners_[3];
  Vec3 normals_[3], tangents_[3], endNormals_[3], endTangents_[3];
  int order_[3] = {};
  float hand_ = 1;
};

// After a pass: each triangle is that of one slice, and each new vertex has corners in its slice alone.
std::string ValidateRefined(const Part& part, const PassPlan& plan) {
  Fault fault;
  std::vector<bool> taken(part.triangles.size()), owned(part.positions.size());
  for (const Slice& slice : plan.slices) {
    const auto level = static_cast<std::uint64_t>(slice.level);
    const std::uint64_t faces = level == 0 ? 1 : LatticeTriangles(level);
    const std::uint64_t points = level == 0 ? 0 : LatticePoints(level);
    if (!fault.Require(slice.triangle + faces <= taken.size() && slice.vertex + points <= owned.size(),
                       "refined slice", slice.triangle))
      break;
    for (std::size_t v = slice.vertex; v < slice.vertex + points; ++v)
      fault.Require(!owned[v], "point of two refined triangles", v);
    for (std::size_t i = slice.triangle; i < slice.triangle + faces; ++i) {
      fault.Require(!taken[i], "refined triangle's place", i);
      taken[i] = true;
      for (const std::uint32_t v : part.triangles[i].vertex)
        if (level != 0 && fault.Require(v - slice.vertex < points, "refined triangle's vertex", i))
          owned[v] = true;
    }
    for (std::size_t v = slice.vertex; v < slice.vertex + points; ++v)
      fault.Require(owned[v], "point of no triangle", v);
  }
  return fault.text;
}

// One layer of every shader. False, with an error row and the Part unchanged, when the result is too large.
bool RefineAndMove(Part& part, std::size_t pass) {
  PassPlan plan;
  RawVector<Triangle> triangles;
  if (!PlanPass(part, pass, plan) || !GrowArrays(part, plan, triangles)) {
    PrintError("part - displacement levels ask for more triangles than can be held, the layer is left out",
               {"displacement-size"});
    return false;
  }
  const auto count = static_cast<std::int64_t>(part.triangles.size());
#pragma omp parallel for schedule(static) if (IsWorthThreads(plan.vertices, 100))
  for (std::int64_t i = 0; i < count; ++i) {
    if (Stopping()) continue;
    const Triangle& triangle = At(part.triangles, i);
    const Slice& slice = At(plan.slices, i);
    if (slice.level == 0) {
      triangles[slice.triangle] = triangle;
      continue;
    }
    Refiner(part, FindLayer(triangle.shader, pass), triangle).WriteVertices(slice);
    WriteLattice(slice.vertex, static_cast<std::uint32_t>(slice.level), triangle.shader,
                 &triangles[slice.triangle]);
  }
  part.triangles.swap(triangles);
  if (kValidates && !Stopping()) RequireSound(ValidateRefined(part, plan));
  return true;
}

}  // namespace

void Displace(Part& part) {
  const std::size_t passes = CountPasses(part);
  if (passes == 0) return;
  SplitTetragons(part);
  for (std::size_t pass = 0; pass < passes && !Stopping(); ++pass) {
    Smooth(part);
    if (part.normals.empty() || part.tangents.empty()) break;
    // Guarded for Parts whose arrays do not match, which cannot be refined without reading past an end.
    part.normals.resize(part.positions.size());
    part.tangents.resize(part.positions.size());
    DeriveEndVectors(part);
    if (!RefineAndMove(part, pass)) break;
  }
  if (part.normals.empty())
    PrintWarning("part - missing vertex normals for displacement mapping", {"displacement-normals"});
  PrintRule();
}

}  // namespace zp
