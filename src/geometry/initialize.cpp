#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "core/console.h"
#include "core/index.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/validate.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "geometry/validate.h"
#include "shading/shading.h"

namespace zp {
namespace {

template <class Index>
bool AllBelow(const Index& vertices, std::size_t count) {
  for (const std::uint32_t v : vertices)
    if (v >= count) return false;
  return true;
}

// Sorts out what a tree cannot hold. Counts both reasons for the rows.
struct PrimitiveFilter {
  const Part& part;
  std::size_t outOfRange = 0;
  std::size_t notFinite = 0;

  template <class Vertices>
  bool Keep(const Vertices& vertices, bool round) {
    if (!AllBelow(vertices, part.positions.size())) {
      ++outOfRange;
      return false;
    }
    for (const std::uint32_t v : vertices) {
      const auto& radii = part.scalarSets.empty() ? kNoRadii : part.scalarSets.front().values;
      if (!IsFinite(part.positions[v]) || (round && v < radii.size() && !std::isfinite(radii[v]))) {
        ++notFinite;
        return false;
      }
    }
    return true;
  }

  static inline const std::vector<float> kNoRadii;
};

// Compacts `list`, and `shadersOfList` beside it where it holds one entry for each.
template <class List, class Predicate>
void KeepIf(List& list, std::vector<std::int32_t>* shadersOfList, Predicate&& keep) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!keep(list[i])) continue;
    if (kept != i) {
      list[kept] = list[i];
      if (shadersOfList) (*shadersOfList)[kept] = (*shadersOfList)[i];
    }
    ++kept;
  }
  list.resize(kept);
  if (shadersOfList) shadersOfList->resize(kept);
}

void DropUnusablePrimitives(Part& part) {
  PrimitiveFilter filter{part};
  // A mixed Part's shader list belongs to no list alone and stays whole.
  const auto shadersOf = [&](const std::vector<std::uint32_t>& list) {
    const bool alone = list.size() == part.particles.size() + part.cylinders.size();
    return alone && list.size() == part.primitiveShaders.size() ? &part.primitiveShaders : nullptr;
  };
  KeepIf(part.particles, shadersOf(part.particles), [&](std::uint32_t v) {
    const std::uint32_t vertices[] = {v};
    return filter.Keep(vertices, true);
  });
  KeepIf(part.cylinders, shadersOf(part.cylinders), [&](std::uint32_t v) {
    const std::uint32_t vertices[] = {v, v == 0xFFFFFFFFU ? v : v + 1};
    return filter.Keep(vertices, true);
  });
  KeepIf(part.triangles, nullptr, [&](const Triangle& t) { return filter.Keep(t.vertex, false); });
  KeepIf(part.tetragons, nullptr, [&](const Tetragon& t) { return filter.Keep(t.vertex, false); });
  if (filter.outOfRange > 0)
    PrintWarning("object - primitives with an index out of range are dropped", {"part-indices"});
  if (filter.notFinite > 0)
    PrintWarning("object - primitives with non-finite positions are dropped", {"part-positions"});
}

// A set that is neither empty nor one value a vertex is cut or filled up with zeros, so that no look-up by
// vertex leaves it.
template <class T>
bool FitToVertices(std::vector<T>& values, std::size_t count) {
  if (values.empty() || values.size() == count) return true;
  values.resize(count);
  return false;
}

void Validate(Part& part) {
  const bool particles = !part.particles.empty(), cylinders = !part.cylinders.empty();
  const bool faces = !part.triangles.empty() || !part.tetragons.empty();
  const bool mixtures[] = {particles && cylinders, particles && faces, cylinders && faces};
  for (const bool mixed : mixtures) {
    if (!mixed) continue;
    PrintError("object - mixed types (ex. cylinders and triangles in the same group) ", {"part-mixed"});
    PrintRule();
  }

  const std::size_t count = part.positions.size();
  bool fits = true;
  for (auto& set : part.scalarSets) fits &= FitToVertices(set.values, count);
  for (auto& set : part.uvSets) fits &= FitToVertices(set.values, count);
  for (auto& set : part.vectorSets) fits &= FitToVertices(set.values, count);
  fits &= FitToVertices(part.normals, count);
  fits &= FitToVertices(part.tangents, count);
  if (!fits) PrintError("object - different size of per vertex data array", {"part-data"});

  DropUnusablePrimitives(part);

  if (!HasShader(part.shader)) part.shader = 0;
  // Names are slow to compare, but primitives of one Shader mostly follow one another. An index outside the
  // table counts as undefined too, so that no look-up leaves it.
  std::int32_t last = kNone;
  bool isUndefined = true;
  const auto settle = [&](std::int32_t& shader) {
    if (shader != last) {
      last = shader;
      isUndefined = !HasShader(shader) || ShaderAt(shader).name == kUndefinedShader;
    }
    if (isUndefined) shader = part.shader;
  };
  for (Triangle& triangle : part.triangles) settle(triangle.shader);
  for (Tetragon& tetragon : part.tetragons) settle(tetragon.shader);
  for (std::int32_t& shader : part.primitiveShaders) settle(shader);
}

void FlipFaces(Part& part) {
  const auto flips = [](std::int32_t shader) {
    return HasShader(shader) && ShaderAt(shader).geometry.flipFace;
  };
  for (Triangle& triangle : part.triangles)
    if (flips(triangle.shader)) std::swap(triangle.vertex[0], triangle.vertex[1]);
  for (Tetragon& tetragon : part.tetragons)
    if (flips(tetragon.shader)) std::swap(tetragon.vertex[0], tetragon.vertex[2]);
}

// What no ray meets sheds no light in format 2, sampled or not.
bool IsUnseenEmitter(std::int32_t shader) {
  return settings.format >= 2 && HasShader(shader) &&
         ShaderAt(shader).geometry.visibility == Visibility::kInvisible;
}

// Adds the records of one primitive, in the order of the four flags of its Shader.
void AddEmitter(Object& object, EmissionRecord record, std::int32_t shaderIndex) {
  if (!HasShader(shaderIndex)) return;
  const Shader& shader = ShaderAt(shaderIndex);
  if (record.kind != kKindInstance && IsUnseenEmitter(shaderIndex)) return;
  const auto add = [&](EmissionList& list, bool flag, std::uint8_t side) {
    if (!flag) return;
    record.side = side;
    list.records.push_back(record);
  };
  add(object.emitters, shader.frontEmissive, 1);
  add(object.emitters, shader.backEmissive, 0);
  add(object.virtualLights, shader.frontVirtualLight, 1);
  add(object.virtualLights, shader.backVirtualLight, 0);
}

bool IsLight(std::int32_t shaderIndex) {
  if (!HasShader(shaderIndex)) return false;
  const Shader& s = ShaderAt(shaderIndex);
  return s.frontEmissive || s.backEmissive || s.frontVirtualLight || s.backVirtualLight;
}

void FinishEmissionList(EmissionList& list) {
  std::vector<float> areas(list.records.size());
  double total = 0;  // a float sum of a million small faces would lose the last ones
  for (std::size_t i = 0; i < areas.size(); ++i) {
    areas[i] = list.records[i].area;
    total += areas[i];
  }
  list.area = static_cast<float>(total);
  list.distribution = MakeDistribution(areas);
  list.shares.clear();
  if (settings.format < 2 || list.distribution.weights.empty()) return;
  list.shares.reserve(areas.size());
  double running = 0;
  for (const float area : areas) list.shares.push_back((running += static_cast<double>(area)) / total);
}

// The cube root of a determinant, squared: how a matrix scales areas, in the mean of all directions. Exact
// for turns, mirrors and even scales, and near enough to tell how bright an Instance is.
double AreaScale(const Mat4& matrix) {
  const auto& m = matrix.m;
  const auto minor = [&](int i, int j) {
    return double{m[1][i]} * double{m[2][j]} - double{m[1][j]} * double{m[2][i]};
  };
  const double determinant =
      double{m[0][0]} * minor(1, 2) - double{m[0][1]} * minor(0, 2) + double{m[0][2]} * minor(0, 1);
  const double root = std::cbrt(determinant);
  return root * root;
}

// Calls visit(record) for every face of the Part with that index: part, kind, index and area are set.
template <class Visit>
void ForEachFace(const Object& object, std::size_t index, Visit visit) {
  const Part& part = object.parts[index];
  EmissionRecord record;
  record.part = static_cast<std::int32_t>(index);
  record.kind = kKindTriangle;
  for (record.index = 0; record.index < part.triangles.size(); ++record.index)
    visit(record, part.triangles[record.index].shader, TriangleArea);
  record.kind = kKindTetragon;
  for (record.index = 0; record.index < part.tetragons.size(); ++record.index)
    visit(record, part.tetragons[record.index].shader, TetragonArea);
}

// A record for each Instance, in the order of the list; its area is what its Object's `list` has.
template <class Add>
void ForEachPlaced(const Object& object, Add add) {
  EmissionRecord record;
  record.kind = kKindInstance;
  for (record.index = 0; record.index < object.instances.size(); ++record.index) {
    const Instance& instance = object.instances[record.index];
    if (IsIndex(objectTable, instance.object) && CanBeHit(instance))
      add(record, instance, At(objectTable, instance.object), AreaScale(instance.matrix));
  }
}

void FillFaces(Object& object) {
  if (!object.faces.records.empty()) return;
  for (std::size_t p = 0; p < object.parts.size(); ++p)
    ForEachFace(object, p, [&](EmissionRecord record, std::int32_t shader, auto area) {
      if (IsUnseenEmitter(shader)) return;
      record.area = area(object.parts[p], record.index);
      object.faces.records.push_back(record);
    });
  ForEachPlaced(object, [&](EmissionRecord record, const Instance&, Object& placed, double scale) {
    FillFaces(placed);
    record.area = static_cast<float>(scale * double{placed.faces.area});
    object.faces.records.push_back(record);
  });
  FinishEmissionList(object.faces);
}

// Each Instance once, by its area in the world; what it overrides is in the lists as it is hit.
void AddInstances(Object& object) {
  ForEachPlaced(object, [&](EmissionRecord record, const Instance& instance, Object& placed, double scale) {
    const auto add = [&](EmissionList& list, float area) {
      record.area = static_cast<float>(scale * double{area});
      if (area > 0) list.records.push_back(record);
    };
    if (instance.shader == kNone) {
      add(object.emitters, placed.emitters.area);
      add(object.virtualLights, placed.virtualLights.area);
    } else if (IsLight(instance.shader)) {
      FillFaces(placed);
      record.area = static_cast<float>(scale * double{placed.faces.area});
      AddEmitter(object, record, instance.shader);
    }
  });
}

// The rule of format 1, of which the area and the emitters of Instances are a part: inside the loop over the
// Parts, so that k Parts count each Instance k times, and none never.
void AddInstancesOfPart(Object& object) {
  EmissionRecord record;
  record.kind = kKindInstance;
  for (record.index = 0; record.index < object.instances.size(); ++record.index) {
    const std::int32_t target = object.instances[record.index].object;
    const bool known = IsIndex(objectTable, target);
    record.area = known ? At(objectTable, target).emitters.area : 0.0f;
    object.emitters.records.push_back(record);
    record.area = known ? At(objectTable, target).virtualLights.area : 0.0f;
    object.virtualLights.records.push_back(record);
  }
}

}  // namespace

namespace {

// An Object's shader is for all of its Parts that have none of their own. Format 1 asks for a name, too,
// which no reader gives to a Part.
bool TakesShaderOfObject(const Part& part) {
  return part.shader == 0 && (settings.format >= 2 || part.materialName == kUndefinedShader);
}

// Whether the Part has faces of which the tangents run against u in format 1.
bool KeepsHandedness(const Part& part) {
  const auto mirrored = [&](const auto& face) { return IsMirrored(part, face.vertex); };
  return settings.format >= 2 && !part.uvSets.empty() &&
         (std::any_of(part.triangles.begin(), part.triangles.end(), mirrored) ||
          std::any_of(part.tetragons.begin(), part.tetragons.end(), mirrored));
}

// When the arrays are final.
void NameUvSets(Part& part) {
  part.namedUvs.clear();
  for (std::size_t i = 1; i <= uvSetNames.size() && !part.uvSets.empty(); ++i) {
    const VertexSet<Vec2>& set = UvSetOf(part, static_cast<std::int32_t>(i));
    const bool fits = &set != &part.uvSets.front() && set.values.size() == part.positions.size();
    part.namedUvs.push_back(fits ? set.values.data() : nullptr);
  }
}

}  // namespace

void PreparePart(Part& part, const Object& object) {
  if (TakesShaderOfObject(part)) part.shader = object.shader;
  if (Stopping()) return;
  Validate(part);
  if (!part.cylinders.empty()) DeriveStrands(part);
  part.motion = false;
  for (const auto& set : part.vectorSets) part.motion |= set.name == "motion";
  if (!part.triangles.empty() || !part.tetragons.empty()) {
    FlipFaces(part);
    part.mirroredUvs = KeepsHandedness(part);
    Displace(part);
    Smooth(part, !part.motion);
  }
  PrepareMotion(part);

  for (auto& set : part.uvSets) set.values.shrink_to_fit();
  for (auto& set : part.scalarSets) set.values.shrink_to_fit();
  for (auto& set : part.vectorSets) set.values.shrink_to_fit();
  part.positions.shrink_to_fit();
  part.normals.shrink_to_fit();
  part.tangents.shrink_to_fit();
  part.triangles.shrink_to_fit();
  part.tetragons.shrink_to_fit();
  NameUvSets(part);
  if (kValidates && !Stopping()) RequireSound(ValidatePart(part));
}

// Gauss-Jordan elimination with row pivots, in double precision. False, with `inverse` untouched, for a
// matrix that has none or has entries that are no finite numbers.
bool Invert(const Mat4& matrix, Mat4& inverse) {
  double a[4][8] = {};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) a[i][j] = double{matrix.m[i][j]};
    a[i][4 + i] = 1;
  }
  for (int column = 0; column < 4; ++column) {
    int pivot = column;
    for (int i = column + 1; i < 4; ++i)
      if (std::fabs(a[i][column]) > std::fabs(a[pivot][column])) pivot = i;
    if (!(std::fabs(a[pivot][column]) > 0) || !std::isfinite(a[pivot][column])) return false;
    if (pivot != column) std::swap(a[pivot], a[column]);
    const double scale = 1 / a[column][column];
    for (double& entry : a[column]) entry *= scale;
    for (int i = 0; i < 4; ++i) {
      if (i == column) continue;
      const double factor = a[i][column];
      for (int j = 0; j < 8; ++j) a[i][j] -= factor * a[column][j];
    }
  }
  Mat4 result;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) {
      result.m[i][j] = static_cast<float>(a[i][4 + j]);
      if (!std::isfinite(result.m[i][j])) return false;
    }
  inverse = result;
  return true;
}

namespace {

// False where a corner lands nowhere.
bool PlaceBox(const Mat4& matrix, const Box& bounds, Box& box) {
  for (int corner = 0; corner < 8; ++corner) {
    const Vec3 p = {(corner & 1) ? bounds.max.x : bounds.min.x, (corner & 2) ? bounds.max.y : bounds.min.y,
                    (corner & 4) ? bounds.max.z : bounds.min.z};
    const Vec3 world = TransformPoint(matrix, p);
    if (!IsFinite(world)) return false;
    Grow(box, world);
  }
  return true;
}

void SetInverse(Instance& instance, const Mat4& inverse) {
  std::copy_n(&inverse.m[0][0], 12, &instance.inverse.m[0][0]);
  if (instance.aside >= 0) return;  // what moves has no perspective
  const auto& row = inverse.m[3];
  if (row[0] == 0 && row[1] == 0 && row[2] == 0 && row[3] == 1) {
    instance.aside = kNone;
    return;
  }
  if (instance.aside == kNone) {
    perspectiveRows.emplace_back();
    instance.aside = kNone - static_cast<std::int32_t>(perspectiveRows.size());
  }
  std::copy_n(row, 4, At(perspectiveRows, kNone - 1 - instance.aside).m);
}

}  // namespace

Box InstanceBox(const Instance& instance) {
  Box box;
  if (IsIndex(objectTable, instance.object) && CanBeHit(instance))
    PlaceBox(instance.matrix, At(objectTable, instance.object).bounds, box);
  return box;
}

// What has no inverse, places nothing or has a corner that lands nowhere is never hit.
void FinishInstance(Instance& instance, const Box& bounds) {
  Mat4 inverse;
  Box box;
  instance.inverse.m[0][0] = std::numeric_limits<float>::quiet_NaN();
  if (!Invert(instance.matrix, inverse))
    PrintError("object - an instance matrix has no inverse", {"instance-inverse"});
  else if (!IsEmpty(bounds) && !PlaceBox(instance.matrix, bounds, box))
    PrintError("object - an instance matrix sends its object to infinity", {"instance-infinity"});
  else if (!IsEmpty(bounds))
    SetInverse(instance, inverse);
}

void BuildEmissionLists(Object& object) {
  object.emitters = object.virtualLights = object.faces = {};
  for (std::size_t p = 0; p < object.parts.size(); ++p) {
    ForEachFace(object, p, [&](EmissionRecord record, std::int32_t shader, auto area) {
      if (!IsLight(shader)) return;
      record.area = area(object.parts[p], record.index);
      AddEmitter(object, record, shader);
    });
    if (settings.format < 2) AddInstancesOfPart(object);
  }
  if (settings.format >= 2) AddInstances(object);
  FinishEmissionList(object.emitters);
  FinishEmissionList(object.virtualLights);
  if (kValidates) RequireSound(ValidateEmission(object));
}

void PrintObjectReport(const Object& object) {
  std::uint64_t positions = 0, uvs = 0, scalars = 0, normals = 0, tangents = 0;
  std::uint64_t particles = 0, cylinders = 0, triangles = 0, tetragons = 0;
  for (const Part& part : object.parts) {
    positions += part.positions.size();
    for (const auto& set : part.vectorSets) positions += set.values.size();
    for (const auto& set : part.uvSets) uvs += set.values.size();
    for (const auto& set : part.scalarSets) scalars += set.values.size();
    normals += part.normals.size() + part.cornerNormals.values.size();
    tangents += part.tangents.size() + part.cornerTangents.values.size();
    particles += part.particles.size();
    cylinders += part.cylinders.size();
    triangles += part.triangles.size();
    tetragons += part.tetragons.size();
  }
  const auto row = [](std::string_view name, std::uint64_t count, std::uint64_t bytes) {
    PrintCountRow(name, count, static_cast<float>(count * bytes) * kMegabytesPerByte);
  };
  row("positions", positions, sizeof(Vec3));
  row("uv coords", uvs, sizeof(Vec2));
  row("scalars  ", scalars, sizeof(float));
  row("normals  ", normals, sizeof(PackedVector));
  row("tangents ", tangents, sizeof(PackedVector));
  row("particles", particles, sizeof(std::uint32_t));
  row("cylinders", cylinders, sizeof(std::uint32_t));
  row("triangles", triangles, sizeof(Triangle));
  row("tetragons", tetragons, sizeof(Tetragon));
  row("instances", object.instances.size(), 304);
  PrintRule();
  PrintVectorRow("bbox size  ", object.bounds.max - object.bounds.min, "m");
  PrintVectorRow("bbox min   ", object.bounds.min, "n/a");
  PrintVectorRow("bbox max   ", object.bounds.max, "n/a");
  PrintVectorRow("bbox center", Center(object.bounds), "n/a");
  PrintRule();
}

}  // namespace zp
