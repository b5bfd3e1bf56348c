// Vertex normals and tangents from faces. All corners at one position form a group; within it each corner
// sums the faces that stand within its shader's angle, and a vertex splits where its corners end up with
// different data. Groups are independent and summed in a fixed order, so that threads change nothing.

#include <algorithm>
#include <bit>
#include <cmath>

#include "core/console.h"
#include "core/large_array.h"
#include "core/release.h"
#include "core/stop.h"
#include "core/threads.h"
#include "core/validate.h"
#include "geometry/equal_positions.h"
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
struct PackedVectors {
  PackedVector normal, tangent;
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
template <class Faces>
bool DropOutOfRange(Faces& faces, std::size_t count) {
  const auto isOutside = [count](const auto& face) {
    return std::any_of(std::begin(face.vertex), std::end(face.vertex),
                       [count](std::uint32_t v) { return v >= count; });
  };
  return std::erase_if(faces, isOutside) > 0;
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
  std::vector<SmoothAngle> angles = {};
  std::size_t firstShader = 0;
  std::vector<FaceVectors> faces = {};   // triangles before tetragons
  RawVector<std::uint32_t> groups = {};  // of each vertex: the first one at its position
  std::vector<std::size_t> begins = {};  // of each group: its corners in the next arrays; one more at the end
  RawVector<CornerRecord> corners = {};
  std::vector<PackedVectors> smoothed = {};  // of each corner, by NumberOf
  // New vertices. A group has no more than corners, so that each has room for its own from its first corner
  // on.
  std::vector<std::uint32_t> sources = {};  // the old vertex that the rest of the data comes from
  std::vector<PackedVector> normals = {}, tangents = {};
  std::vector<std::uint32_t> firstNew =
      {};  // of each group: its number of new vertices, later the first one's index
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

std::size_t FaceOf(const Part& part, CornerRecord corner) {
  return corner.primitive + (corner.kind == kKindTriangle ? 0 : part.triangles.size());
}

// Counts the corners of all faces.
std::size_t NumberOf(const Part& part, CornerRecord corner) {
  const std::size_t primitive = corner.primitive;
  return corner.corner +
         (corner.kind == kKindTriangle ? 3 * primitive : 3 * part.triangles.size() + 4 * primitive);
}

void MakeFaces(Smoothing& s) {
  const Part& part = s.part;
  const std::size_t triangles = part.triangles.size(), count = triangles + part.tetragons.size();
  s.faces = LargeArray<FaceVectors>(count);
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 40))
  for (std::size_t i = 0; i < count; ++i)
    s.faces[i] = MakeFaceVectors(
        part, i < triangles ? part.triangles[i].vertex : part.tetragons[i - triangles].vertex);
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
  s.begins = LargeArray<std::size_t>(s.groups.size() + 2);
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
      const std::size_t number = NumberOf(s.part, corner);
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

// Smooths the corners from `begin` to `end`, which share a position.
void SmoothPiece(Smoothing& s, std::size_t begin, std::size_t end, std::vector<GroupCorner>& group) {
  Part& part = s.part;
  group.clear();
  for (std::size_t i = begin; i < end; ++i) {
    const CornerRecord corner = s.corners[i];
    const std::int32_t shader = corner.kind == kKindTriangle ? part.triangles[corner.primitive].shader
                                                             : part.tetragons[corner.primitive].shader;
    group.push_back({s.faces[FaceOf(part, corner)], &AngleOf(s, shader)});
  }
  LastSum lastNormal, lastTangent;
  for (std::size_t i = begin; i < end; ++i) {
    const std::uint32_t vertex = VertexOf(part, s.corners[i]);
    const GroupCorner& corner = group[i - begin];
    s.smoothed[NumberOf(part, s.corners[i])] = {
        SmoothVector<&FaceVectors::normal>(group, corner, ValueAt(part.normals, vertex), lastNormal),
        SmoothVector<&FaceVectors::tangent>(group, corner, ValueAt(part.tangents, vertex), lastTangent)};
  }
}

// The vertices of those corners. New ones append to the `added` ones that stand from `firstVertex` on, and
// the primitives get their numbers counted from there.
std::uint32_t SplitPiece(Smoothing& s, std::size_t begin, std::size_t end, std::size_t firstVertex,
                         std::uint32_t added) {
  Part& part = s.part;
  const std::size_t firstOfPiece = firstVertex + added;
  std::size_t endOfPiece = firstOfPiece;
  for (std::size_t i = begin; i < end; ++i) {
    std::uint32_t& vertex = VertexOf(part, s.corners[i]);
    const PackedVectors& own = s.smoothed[NumberOf(part, s.corners[i])];
    std::size_t fit = firstOfPiece;
    while (fit < endOfPiece && !(s.normals[fit] == own.normal && s.tangents[fit] == own.tangent &&
                                 HasSameData(part, s.sources[fit], vertex)))
      ++fit;
    if (fit == endOfPiece) {
      s.sources[fit] = vertex;
      s.normals[fit] = own.normal;
      s.tangents[fit] = own.tangent;
      ++endOfPiece;
    }
    vertex = static_cast<std::uint32_t>(fit - firstVertex);
  }
  return static_cast<std::uint32_t>(endOfPiece - firstVertex);
}

// Calls visit(group, begin, end) for the groups piece by piece, by all threads.
template <class Visit>
void ForEachPiece(const Smoothing& s, std::size_t nanosecondsEach, Visit visit) {
#pragma omp parallel if (IsWorthThreads(s.corners.size(), nanosecondsEach))
  {
    std::vector<GroupCorner> group;
#pragma omp for schedule(dynamic, 1024)
    for (std::size_t g = 0; g < s.begins.size() - 1; ++g)
      for (std::size_t begin = s.begins[g]; begin < s.begins[g + 1] && !Stopping(); begin += kLargestFan)
        visit(g, begin, std::min(begin + kLargestFan, s.begins[g + 1]), group);
  }
}

void SmoothGroups(Smoothing& s) {
  s.smoothed = LargeArray<PackedVectors>(s.corners.size());
  ForEachPiece(s, 60, [&](std::size_t, std::size_t begin, std::size_t end, std::vector<GroupCorner>& group) {
    SmoothPiece(s, begin, end, group);
  });
  Release(s.faces);
}

// Whether all corners have what their vertices have already.
bool StandsInVertices(const Smoothing& s, PackedVector PackedVectors::*member,
                      const std::vector<PackedVector>& vertices) {
  if (vertices.size() != s.part.positions.size()) return false;
  bool same = true;
  ForEachCorner(s.part, [&](std::uint32_t vertex, CornerRecord corner) {
    same = same && s.smoothed[NumberOf(s.part, corner)].*member == vertices[vertex];
  });
  return same;
}

// The vectors by face; none if more than one face in sixteen has several.
CornerVectors FaceByFace(const Smoothing& s, PackedVector PackedVectors::*member) {
  const std::size_t triangles = s.part.triangles.size(), count = triangles + s.part.tetragons.size();
  const auto cornerCount = [&](std::size_t face) { return face < triangles ? 3 : 4; };
  const auto first = [&](std::size_t face) {
    return &s.smoothed[face < triangles ? 3 * face : 3 * triangles + 4 * (face - triangles)];
  };
  CornerVectors vectors;
  vectors.values = LargeArray<PackedVector>(count);
  std::size_t varied = 0;
#pragma omp parallel for schedule(static) reduction(+ : varied) if (IsWorthThreads(count, 5))
  for (std::size_t face = 0; face < count; ++face) {
    const PackedVectors* corner = first(face);
    bool same = true;
    for (int i = 1; i < cornerCount(face); ++i) same = same && corner[i].*member == corner->*member;
    vectors.values[face] = same ? corner->*member : kVaried;
    varied += !same;
  }
  if (varied > count / 16) return {};
  for (std::size_t face = 0; face < count && vectors.varied.size() < varied; ++face) {
    if (vectors.values[face] != kVaried) continue;
    auto& added = vectors.varied.emplace_back();
    added.face = static_cast<std::uint32_t>(face);
    for (int i = 0; i < cornerCount(face); ++i) added.of[i] = first(face)[i].*member;
  }
  return vectors;
}

// Leaves the vertices as they are, if the corners' vectors do not ask for more: they are those of the
// vertices or those of whole faces.
bool KeepVertices(Smoothing& s) {
  Part& part = s.part;
  const bool normalsStand = StandsInVertices(s, &PackedVectors::normal, part.normals);
  const bool tangentsStand = StandsInVertices(s, &PackedVectors::tangent, part.tangents);
  CornerVectors normals, tangents;
  if (!normalsStand) normals = FaceByFace(s, &PackedVectors::normal);
  if (!normalsStand && normals.values.empty()) return false;
  if (!tangentsStand) tangents = FaceByFace(s, &PackedVectors::tangent);
  if (!tangentsStand && tangents.values.empty()) return false;
  if (!normalsStand) Release(part.normals);
  if (!tangentsStand) Release(part.tangents);
  part.cornerNormals = std::move(normals);
  part.cornerTangents = std::move(tangents);
  return true;
}

void SplitGroups(Smoothing& s) {
  s.sources.resize(s.corners.size());
  s.normals.resize(s.corners.size());
  s.tangents.resize(s.corners.size());
  s.firstNew.assign(s.begins.size(), 0);
  ForEachPiece(s, 30, [&](std::size_t g, std::size_t begin, std::size_t end, auto&) {
    s.firstNew[g] = SplitPiece(s, begin, end, s.begins[g], s.firstNew[g]);
  });
  Release(s.smoothed);
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

void Smooth(Part& part, bool keepsVertices) {
  part.cornerNormals = part.cornerTangents = {};
  const bool drops[] = {DropOutOfRange(part.triangles, part.positions.size()),
                        DropOutOfRange(part.tetragons, part.positions.size())};
  if (drops[0] || drops[1]) PrintError("part - smoothing out of range", {"smoothing-range"});
  if (part.triangles.empty() && part.tetragons.empty()) return;
  if (WantsFacetsOnly(part)) {
    Release(part.normals);
    return;
  }
  Smoothing s{part};
  FindAngles(s);
  MakeFaces(s);
  if (Stopping()) return;
  s.groups = FirstEqual(part.positions, false);
  if (Stopping()) return;
  CollectCorners(s);
  if (kValidates) RequireSound(ValidateCorners(s));
  Release(s.groups);
  SmoothGroups(s);
  if (Stopping()) return;
  const bool round = !part.particles.empty() || !part.cylinders.empty();
  if (keepsVertices && !round && KeepVertices(s)) return;
  SplitGroups(s);
  if (!Stopping()) Replace(s);
}

}  // namespace zp
