// Vertex normals and tangents from faces. All corners at one position form a group; within it each corner
// sums the faces that stand within its shader's angle, and a vertex splits where its corners end up with
// different data. Groups are independent and summed in a fixed order, so that threads change nothing.

#include <algorithm>
#include <bit>
#include <cmath>

#include "core/console.h"
#include "core/release.h"
#include "core/stop.h"
#include "core/threads.h"
#include "core/validate.h"
#include "geometry/geometry.h"
#include "shading/shading.h"

namespace zp {
namespace {

constexpr float kNoAngle = 1e-8f;  // below, an angle asks for facets

// A fan with more corners at one position is smoothed piece by piece: the work is quadratic in a piece.
constexpr std::size_t kLargestFan = 1024;

// One corner of a primitive, in the list of its group.
struct CornerRecord {
  std::uint32_t primitive;
  std::uint8_t kind;  // kKindTriangle or kKindTetragon
  std::uint8_t corner;
};

// What a primitive adds to the sums: unit vectors, zero where it is degenerate.
struct FaceVectors {
  Vec3 normal, tangent;
};

// The smoothing angle of a Shader, and cosines that settle all but the closest comparisons without an acos.
struct SmoothAngle {
  float radians;
  float surelyWithin, surelyBeyond;
  bool facets;  // asks for no normals at all
};

SmoothAngle MakeSmoothAngle(float degrees) {
  constexpr double kMargin = 1e-6;  // above the error of acos, of the dot product and of both cosines
  SmoothAngle angle = {degrees * (kPi / 180.0f), 2, 2, false};  // as it is, nothing is within
  angle.facets = std::fabs(angle.radians) < kNoAngle;
  if (angle.radians > 3.15f) {
    angle.surelyWithin = -2;
  } else if (angle.radians > 0) {
    const double cosine = std::cos(double{angle.radians});
    angle.surelyWithin = static_cast<float>(cosine + kMargin);
    angle.surelyBeyond = static_cast<float>(cosine - kMargin);
  }
  return angle;
}

// For unit vectors or zero, of which it does not matter whether they count.
bool IsWithin(const SmoothAngle& angle, Vec3 a, Vec3 b) {
  const float cosine = Dot(a, b);
  if (cosine > angle.surelyWithin) return true;
  if (cosine < angle.surelyBeyond) return angle.surelyBeyond > 1 && a == b;
  return a == b || std::acos(std::clamp(cosine, -1.0f, 1.0f)) < angle.radians;
}

// The value of a vertex; nothing stands for what an array lacks.
template <class T>
T ValueAt(const std::vector<T>& values, std::uint32_t vertex) {
  return vertex < values.size() ? values[vertex] : T{};
}

float DegreesOf(std::int32_t shader) {
  static const GeometryShader kDefaults;
  return (HasShader(shader) ? ShaderAt(shader).geometry : kDefaults).smoothAngle;
}

// True if all shaders in use ask for facets.
bool WantsFacetsOnly(const Part& part) {
  const auto facets = [](const auto& face) { return std::fabs(DegreesOf(face.shader)) < kNoAngle; };
  return std::all_of(part.triangles.begin(), part.triangles.end(), facets) &&
         std::all_of(part.tetragons.begin(), part.tetragons.end(), facets);
}

// Drops faces with a corner outside the positions.
template <class Face>
bool DropOutOfRange(std::vector<Face>& faces, std::size_t count) {
  const auto isOutside = [count](const Face& face) {
    return std::any_of(std::begin(face.vertex), std::end(face.vertex),
                       [count](std::uint32_t v) { return v >= count; });
  };
  return std::erase_if(faces, isOutside) > 0;
}

// Equal positions have equal keys: both zeros share one.
std::uint32_t PositionHash(Vec3 p) {
  const auto key = [](float x) { return std::uint64_t{std::bit_cast<std::uint32_t>(x == 0.0f ? 0.0f : x)}; };
  std::uint64_t h = key(p.x) * 0x9E3779B97F4A7C15ULL;
  h = (std::rotl(h, 29) ^ key(p.y)) * 0xD6E8FEB86659FD93ULL;
  h = (std::rotl(h, 29) ^ key(p.z)) * 0xD6E8FEB86659FD93ULL;
  return static_cast<std::uint32_t>(h >> 32U);
}

// For each vertex the first one with the same position, which names their group. A position that is no number
// equals none. The vertices are dealt into shares small enough for a table that stays in the cache.
std::vector<std::uint32_t> FindGroups(const std::vector<Vec3>& positions) {
  constexpr std::size_t kShare = 2048;
  const std::size_t count = positions.size();
  const int bits = std::clamp(static_cast<int>(std::bit_width(count / kShare)), 1, 12);
  std::vector<std::uint32_t> hashes(count), order(count), groups(count);
  std::vector<std::size_t> begins((std::size_t{1} << bits) + 1);
  const auto shareOf = [bits](std::uint32_t hash) { return std::size_t{hash >> (32 - bits)}; };
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 3))
  for (std::size_t v = 0; v < count; ++v) hashes[v] = PositionHash(positions[v]);
  for (const std::uint32_t hash : hashes) ++begins[shareOf(hash) + 1];
  for (std::size_t i = 1; i < begins.size(); ++i) begins[i] += begins[i - 1];
  std::vector<std::size_t> ends(begins.begin(), begins.end() - 1);
  for (std::size_t v = 0; v < count; ++v) order[ends[shareOf(hashes[v])]++] = static_cast<std::uint32_t>(v);

#pragma omp parallel if (IsWorthThreads(count, 20))
  {
    std::vector<std::uint32_t> table;
#pragma omp for schedule(dynamic)
    for (std::size_t share = 0; share < ends.size(); ++share) {
      const std::size_t mask = std::bit_ceil(2 * (ends[share] - begins[share]) + 1) - 1;
      table.assign(mask + 1, kUnusedSlot);
      for (std::size_t i = begins[share]; i < ends[share]; ++i) {
        const std::uint32_t v = order[i];
        groups[v] = v;
        if (!(positions[v] == positions[v])) continue;
        std::size_t slot = hashes[v] & mask;
        while (table[slot] != kUnusedSlot && !(positions[table[slot]] == positions[v]))
          slot = (slot + 1) & mask;
        if (table[slot] == kUnusedSlot) table[slot] = v;
        groups[v] = table[slot];
      }
    }
  }
  return groups;
}

// The direction in which u grows and v does not; false where the uvs do not tell. `e1` and `e2` lead from the
// first corner to the others.
bool FindUvTangent(const std::vector<Vec2>& uvs, const std::uint32_t* vertex, Vec3 e1, Vec3 e2,
                   Vec3& tangent) {
  constexpr float kNoDifference = 1e-8f;
  if (std::max({vertex[0], vertex[1], vertex[2]}) >= uvs.size()) return false;
  const Vec2 uv0 = uvs[vertex[0]], uv1 = uvs[vertex[1]], uv2 = uvs[vertex[2]];
  const float du1 = uv1.x - uv0.x, dv1 = uv1.y - uv0.y, du2 = uv2.x - uv0.x, dv2 = uv2.y - uv0.y;
  const auto isNone = [](float difference) { return std::fabs(difference) < kNoDifference; };
  if (isNone(du1) && isNone(dv1) && isNone(du2) && isNone(dv2)) return false;
  tangent = UnitVector(dv2 * e1 - dv1 * e2);
  return IsFinite(tangent);
}

// Of the first three corners.
FaceVectors MakeFaceVectors(const Part& part, const std::uint32_t* vertex) {
  const Vec3 p0 = part.positions[vertex[0]];
  const Vec3 e1 = part.positions[vertex[1]] - p0, e2 = part.positions[vertex[2]] - p0;
  FaceVectors face;
  face.normal = UnitVector(Cross(e1, e2));
  if (!IsFinite(face.normal)) face.normal = {};
  if (part.uvSets.empty() || !FindUvTangent(part.uvSets.front().values, vertex, e1, e2, face.tangent))
    face.tangent = Cross(UnitPerpendicular(face.normal), face.normal);
  else if (part.mirroredUvs && IsMirrored(part, vertex))
    face.tangent = -face.tangent;
  return face;
}

// Everything that lives while one Part is smoothed.
struct Smoothing {
  Part& part;
  // Of the Shaders from the first to the last in use, of which there may be far more, then of one that is not
  // in the table.
  std::vector<SmoothAngle> angles;
  std::size_t firstShader = 0;
  std::vector<FaceVectors> triangles;  // of each triangle
  std::vector<FaceVectors> tetragons;
  std::vector<std::uint32_t> groups;  // of each vertex: the first one at its position
  std::vector<std::size_t> begins;    // of each group: its corners in the next arrays; one more at the end
  std::vector<CornerRecord> corners;
  // New vertices. A group has no more than corners, so that each has room for its own from its first corner
  // on.
  std::vector<std::uint32_t> sources;  // the old vertex that the rest of the data comes from
  std::vector<PackedVector> normals, tangents;
  std::vector<std::uint32_t>
      firstNew;  // of each group: its number of new vertices, later the first one's index
};

const SmoothAngle& AngleOf(const Smoothing& s, std::int32_t shader) {
  return s.angles[std::min(static_cast<std::size_t>(shader) - s.firstShader, s.angles.size() - 1)];
}

void FindAngles(Smoothing& s) {
  std::size_t first = shaders.size(), last = 0;
  const auto meet = [&](const auto& faces) {
    for (const auto& face : faces) {
      if (!HasShader(face.shader)) continue;
      const auto index = static_cast<std::size_t>(face.shader);
      first = std::min(first, index);
      last = std::max(last, index);
    }
  };
  meet(s.part.triangles);
  meet(s.part.tetragons);
  s.firstShader = first < shaders.size() ? first : 0;
  for (std::size_t i = first; i <= last && i < shaders.size(); ++i)
    s.angles.push_back(MakeSmoothAngle(shaders[i].geometry.smoothAngle));
  s.angles.push_back(MakeSmoothAngle(DegreesOf(kNone)));
}

std::uint32_t& VertexOf(Part& part, CornerRecord corner) {
  return corner.kind == kKindTriangle ? part.triangles[corner.primitive].vertex[corner.corner]
                                      : part.tetragons[corner.primitive].vertex[corner.corner];
}

void MakeFaces(Smoothing& s) {
  const Part& part = s.part;
  s.triangles.resize(part.triangles.size());
  s.tetragons.resize(part.tetragons.size());
#pragma omp parallel if (IsWorthThreads(s.triangles.size() + s.tetragons.size(), 40))
  {
#pragma omp for schedule(static)
    for (std::size_t i = 0; i < s.triangles.size(); ++i)
      s.triangles[i] = MakeFaceVectors(part, part.triangles[i].vertex);
#pragma omp for schedule(static)
    for (std::size_t i = 0; i < s.tetragons.size(); ++i)
      s.tetragons[i] = MakeFaceVectors(part, part.tetragons[i].vertex);
  }
}

// Visits the corners of all primitives with their vertices, triangles first.
template <class Visit>
void ForEachCorner(const Part& part, Visit&& visit) {
  const auto visitAll = [&visit](const auto& faces, std::uint8_t kind) {
    for (std::size_t i = 0; i < faces.size(); ++i)
      for (std::uint8_t corner = 0; corner < std::size(faces[i].vertex); ++corner)
        visit(faces[i].vertex[corner], CornerRecord{static_cast<std::uint32_t>(i), kind, corner});
  };
  visitAll(part.triangles, kKindTriangle);
  visitAll(part.tetragons, kKindTetragon);
}

// Sorts the corners by group.
void CollectCorners(Smoothing& s) {
  s.begins.assign(s.groups.size() + 2, 0);
  ForEachCorner(s.part, [&s](std::uint32_t vertex, CornerRecord) { ++s.begins[s.groups[vertex] + 2]; });
  for (std::size_t g = 2; g < s.begins.size(); ++g) s.begins[g] += s.begins[g - 1];
  s.corners.resize(s.begins.back());
  // Filling a group moves its entry from its own begin to the next one's.
  ForEachCorner(s.part, [&s](std::uint32_t vertex, CornerRecord corner) {
    s.corners[s.begins[s.groups[vertex] + 1]++] = corner;
  });
  s.begins.pop_back();
}

// Each corner of a face stands once, in the group of its vertex, whose vertices share a position.
std::string ValidateCorners(const Smoothing& s) {
  Fault fault;
  const std::size_t triangles = s.part.triangles.size(), count = 3 * triangles + 4 * s.part.tetragons.size();
  if (!fault.Require(s.corners.size() == count && s.begins.back() == count, "corners' number", count))
    return fault.text;
  std::vector<bool> met(count);
  for (std::size_t g = 0; g + 1 < s.begins.size(); ++g)
    for (std::size_t i = s.begins[g]; i < s.begins[g + 1]; ++i) {
      const CornerRecord corner = s.corners[i];
      const std::size_t number = corner.kind == kKindTriangle
                                     ? 3 * std::size_t{corner.primitive} + corner.corner
                                     : 3 * triangles + 4 * std::size_t{corner.primitive} + corner.corner;
      if (!fault.Require(number < count && !met[number], "corner", i)) return fault.text;
      met[number] = true;
      const std::uint32_t vertex = VertexOf(s.part, corner);
      fault.Require(s.groups[vertex] == g, "corner's group", i);
      fault.Require(vertex == g || s.part.positions[vertex] == s.part.positions[g], "corner's position", i);
    }
  return fault.text;
}

// Whether the vertex `other` holds in all sets what `vertex` holds.
bool HasSameData(const Part& part, std::uint32_t other, std::uint32_t vertex) {
  if (other == vertex) return true;
  const auto isSame = [&](const auto& set) {
    const auto& values = set.values;
    return vertex >= values.size() || (other < values.size() && values[other] == values[vertex]);
  };
  return std::all_of(part.scalarSets.begin(), part.scalarSets.end(), isSame) &&
         std::all_of(part.uvSets.begin(), part.uvSets.end(), isSame) &&
         std::all_of(part.vectorSets.begin(), part.vectorSets.end(), isSame);
}

// One corner while its group is smoothed.
struct GroupCorner {
  FaceVectors face;
  const SmoothAngle* angle;
};

// Most corners of a group end up with the sum of the one before them, which is packed already.
struct LastSum {
  Vec3 sum;
  PackedVector packed;
};

// The vector of corner `c`: a member of its face, summed over the corners within its angle. `stored` is what
// its vertex has so far.
template <Vec3 FaceVectors::*kMember>
PackedVector SmoothVector(const std::vector<GroupCorner>& group, const GroupCorner& c, PackedVector stored,
                          LastSum& last) {
  if (c.angle->facets) return {};
  if (c.angle->radians < 0 && !IsZero(stored)) return stored;
  const SmoothAngle angle = *c.angle;
  const Vec3 own = c.face.*kMember;
  Vec3 sum;
  for (const GroupCorner& other : group)
    if (IsWithin(angle, own, other.face.*kMember)) sum += other.face.*kMember;
  if (!(sum == last.sum)) last = {sum, Pack(SafeNormalize(sum))};
  return last.packed;
}

// Smooths the corners from `begin` to `end`, which share a position. Their new vertices append to the
// `added` ones that stand from `firstVertex` on, and the primitives get their numbers counted from there.
std::uint32_t SmoothPiece(Smoothing& s, std::size_t begin, std::size_t end, std::size_t firstVertex,
                          std::uint32_t added, std::vector<GroupCorner>& group) {
  Part& part = s.part;
  group.clear();
  for (std::size_t i = begin; i < end; ++i) {
    const CornerRecord corner = s.corners[i];
    const bool isTriangle = corner.kind == kKindTriangle;
    const std::int32_t shader =
        isTriangle ? part.triangles[corner.primitive].shader : part.tetragons[corner.primitive].shader;
    group.push_back(
        {isTriangle ? s.triangles[corner.primitive] : s.tetragons[corner.primitive], &AngleOf(s, shader)});
  }
  const std::size_t firstOfPiece = firstVertex + added;
  std::size_t endOfPiece = firstOfPiece;
  LastSum lastNormal, lastTangent;
  for (std::size_t i = begin; i < end; ++i) {
    std::uint32_t& vertex = VertexOf(part, s.corners[i]);
    const GroupCorner& corner = group[i - begin];
    const PackedVector normal =
        SmoothVector<&FaceVectors::normal>(group, corner, ValueAt(part.normals, vertex), lastNormal);
    const PackedVector tangent =
        SmoothVector<&FaceVectors::tangent>(group, corner, ValueAt(part.tangents, vertex), lastTangent);
    std::size_t fit = firstOfPiece;
    while (fit < endOfPiece && !(s.normals[fit] == normal && s.tangents[fit] == tangent &&
                                 HasSameData(part, s.sources[fit], vertex)))
      ++fit;
    if (fit == endOfPiece) {
      s.sources[fit] = vertex;
      s.normals[fit] = normal;
      s.tangents[fit] = tangent;
      ++endOfPiece;
    }
    vertex = static_cast<std::uint32_t>(fit - firstVertex);
  }
  return static_cast<std::uint32_t>(endOfPiece - firstVertex);
}

void SmoothGroups(Smoothing& s) {
  const std::size_t groupCount = s.begins.size() - 1;
  s.sources.resize(s.corners.size());
  s.normals.resize(s.corners.size());
  s.tangents.resize(s.corners.size());
  s.firstNew.assign(groupCount + 1, 0);
#pragma omp parallel if (IsWorthThreads(s.corners.size(), 60))
  {
    std::vector<GroupCorner> group;
#pragma omp for schedule(dynamic, 1024)
    for (std::size_t g = 0; g < groupCount; ++g) {
      if (Stopping()) continue;
      std::uint32_t added = 0;
      for (std::size_t begin = s.begins[g]; begin < s.begins[g + 1]; begin += kLargestFan)
        added =
            SmoothPiece(s, begin, std::min(begin + kLargestFan, s.begins[g + 1]), s.begins[g], added, group);
      s.firstNew[g] = added;
    }
  }
  std::uint32_t total = 0;
  for (std::uint32_t& entry : s.firstNew) {
    const std::uint32_t added = entry;
    entry = total;
    total += added;
  }
}

// Replaces the values of the old vertices by those of the new ones.
template <class T>
void Regather(std::vector<T>& values, const std::vector<std::uint32_t>& sources) {
  if (values.empty()) return;
  std::vector<T> gathered(sources.size());
#pragma omp parallel for schedule(static) if (IsWorthThreads(sources.size(), 3))
  for (std::size_t i = 0; i < sources.size(); ++i) gathered[i] = ValueAt(values, sources[i]);
  values.swap(gathered);
}

// The vertices of particles and cylinders follow those of the faces, as they are and in their old order: a
// cylinder's two stay neighbours.
void KeepRoundPrimitives(Part& part, std::size_t oldCount, std::vector<std::uint32_t>& sources,
                         std::vector<PackedVector>& normals, std::vector<PackedVector>& tangents) {
  if (part.particles.empty() && part.cylinders.empty()) return;
  std::vector<std::uint32_t> moved(oldCount + 1, kUnusedSlot);  // a mark first, then the new index
  const auto mark = [&](std::uint32_t v) {
    if (v < oldCount) moved[v] = 0;
  };
  for (const std::uint32_t v : part.particles) mark(v);
  for (const std::uint32_t v : part.cylinders) {
    mark(v);
    mark(v + 1);
  }
  for (std::uint32_t v = 0; v < oldCount; ++v) {
    if (moved[v] == kUnusedSlot) continue;
    moved[v] = static_cast<std::uint32_t>(sources.size());
    sources.push_back(v);
    normals.push_back(ValueAt(part.normals, v));
    tangents.push_back(ValueAt(part.tangents, v));
  }
  const auto move = [&](std::uint32_t& v) { v = moved[std::min<std::size_t>(v, oldCount)]; };
  for (std::uint32_t& v : part.particles) move(v);
  for (std::uint32_t& v : part.cylinders) move(v);
}

// Moves the Part from its old vertices to the new ones.
void Replace(Smoothing& s) {
  Part& part = s.part;
  const std::size_t groupCount = s.begins.size() - 1, vertexCount = s.firstNew.back();
  std::vector<std::uint32_t> sources(vertexCount);
  std::vector<PackedVector> normals(vertexCount), tangents(vertexCount);
#pragma omp parallel for schedule(static) if (IsWorthThreads(s.corners.size(), 10))
  for (std::size_t g = 0; g < groupCount; ++g) {
    const std::uint32_t first = s.firstNew[g];
    for (std::size_t i = s.begins[g]; i < s.begins[g + 1]; ++i) VertexOf(part, s.corners[i]) += first;
    for (std::uint32_t i = 0; i < s.firstNew[g + 1] - first; ++i) {
      sources[first + i] = s.sources[s.begins[g] + i];
      normals[first + i] = s.normals[s.begins[g] + i];
      tangents[first + i] = s.tangents[s.begins[g] + i];
    }
  }
  KeepRoundPrimitives(part, part.positions.size(), sources, normals, tangents);
  part.normals.swap(normals);
  part.tangents.swap(tangents);
  Regather(part.positions, sources);
  for (auto& set : part.scalarSets) Regather(set.values, sources);
  for (auto& set : part.uvSets) Regather(set.values, sources);
  for (auto& set : part.vectorSets) Regather(set.values, sources);
}

}  // namespace

bool IsMirrored(const Part& part, const std::uint32_t* vertex) {
  const auto uv = [&](int i) { return ValueAt(part.uvSets.front().values, vertex[i]); };
  const Vec2 a = uv(0), b = uv(1), c = uv(2);
  return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x) < 0;
}

void Smooth(Part& part) {
  const bool drops[] = {DropOutOfRange(part.triangles, part.positions.size()),
                        DropOutOfRange(part.tetragons, part.positions.size())};
  if (drops[0] || drops[1]) PrintError("part - smoothing out of range");
  if (part.triangles.empty() && part.tetragons.empty()) return;
  if (WantsFacetsOnly(part)) {
    Release(part.normals);
    return;
  }
  Smoothing s{part, {}, 0, {}, {}, {}, {}, {}, {}, {}, {}, {}};
  FindAngles(s);
  MakeFaces(s);
  if (Stopping()) return;
  s.groups = FindGroups(part.positions);
  if (Stopping()) return;
  CollectCorners(s);
  if (kValidates) RequireSound(ValidateCorners(s));
  Release(s.groups);
  SmoothGroups(s);
  if (!Stopping()) Replace(s);
}

}  // namespace zp
