#include "geometry/validate.h"

#include <algorithm>
#include <cmath>

#include "core/validate.h"
#include "geometry/density.h"
#include "shading/shading.h"

namespace zp {
namespace {

// The first Shader stands for what is undefined, even in a table that has none.
bool IsShader(std::int32_t index) {
  return index >= 0 && static_cast<std::size_t>(index) < std::max<std::size_t>(shaders.size(), 1);
}

struct PartCheck {
  const Part& part;
  Fault fault = {};

  template <class T>
  void CheckArray(const std::vector<T>& values, const char* what) {
    fault.Require(values.empty() || values.size() == part.positions.size(), what, values.size());
  }

  // One a face or none, and not beside vectors of vertices; what varies is found.
  void CheckCornerVectors(const CornerVectors& vectors, const std::vector<PackedVector>& vertices,
                          const char* what) {
    const std::size_t faces = part.triangles.size() + part.tetragons.size();
    if (vectors.values.empty()) return void(fault.Require(vectors.varied.empty(), what));
    if (!fault.Require(vectors.values.size() == faces && vertices.empty(), what, vectors.values.size()))
      return;
    std::size_t varied = 0;
    for (std::size_t i = 0; i < faces; ++i) {
      if (vectors.values[i] != kVaried) continue;
      if (!fault.Require(varied < vectors.varied.size() && vectors.varied[varied].face == i, what, i)) return;
      ++varied;
    }
    fault.Require(varied == vectors.varied.size(), what, varied);
  }

  // `count` vertices from `first` on.
  void CheckRound(std::uint32_t first, std::uint32_t count, std::size_t primitive) {
    if (!fault.Require(std::uint64_t{first} + count <= part.positions.size(), "round primitive's vertex",
                       primitive))
      return;
    for (std::uint32_t v = first; v < first + count; ++v)
      fault.Require(IsFinite(part.positions[v]), "round primitive's position", primitive);
  }

  template <class Faces>
  void CheckFaces(const Faces& faces) {
    for (std::size_t i = 0; i < faces.size(); ++i) {
      fault.Require(IsShader(faces[i].shader), "face's shader", i);
      for (const std::uint32_t v : faces[i].vertex)
        if (fault.Require(v < part.positions.size(), "face's vertex", i))
          fault.Require(IsFinite(part.positions[v]), "face's position", i);
    }
  }
};

void CheckGrid(const CellGrid& grid, std::size_t count, Fault& fault) {
  if (!fault.Require(grid.offset.size() == count && grid.level.size() == count, "cells' primitives", count))
    return;
  std::int64_t cells = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t level = grid.level[i];
    fault.Require(level >= 1 && level <= kMostCellLevels, "cells' level", i);
    fault.Require(grid.offset[i] == cells, "cells' offset", i);
    cells += level * level;
  }
  const auto whole = static_cast<std::size_t>(cells);
  fault.Require(grid.face.size() == whole && grid.back.size() == whole, "cells of the two sides", whole);
}

void CheckEmission(const Object& object, const EmissionList& list, Fault& fault) {
  double area = 0;
  for (std::size_t i = 0; i < list.records.size(); ++i) {
    const EmissionRecord& record = list.records[i];
    const bool placed = record.kind == kKindInstance;
    fault.Require(placed == (record.part == kNone), "emitter's part", i);
    const auto part = static_cast<std::uint16_t>(placed ? 0 : record.part);
    fault.Require(Holds(object, {part, record.kind, record.index}), "emitter's primitive", i);
    area += double{record.area};
  }
  fault.Require(list.area == static_cast<float>(area) || std::isnan(area), "emitters' area");
  fault.Require(
      list.shares.empty() || (list.shares.size() == list.records.size() && list.shares.back() == 1 &&
                              std::is_sorted(list.shares.begin(), list.shares.end())),
      "emitters' running shares");
  const std::size_t shares = list.distribution.weights.size();
  fault.Require(shares == list.records.size() || (shares == 0 && !(area > 0 && std::isfinite(area))),
                "emitters' shares", shares);
}

}  // namespace

std::size_t PrimitiveCount(const Part& part, std::uint16_t kind) {
  switch (kind) {
    case kKindParticle:
      return part.particles.size();
    case kKindCylinder:
      return part.cylinders.size();
    case kKindTriangle:
      return part.triangles.size();
    case kKindTetragon:
      return part.tetragons.size();
    default:
      return 0;
  }
}

bool Holds(const Object& object, const PrimitiveRef& reference) {
  if (reference.kind == kKindInstance) return reference.index < object.instances.size();
  return reference.part < object.parts.size() &&
         reference.index < PrimitiveCount(object.parts[reference.part], reference.kind);
}

std::string ValidateStrands(const Part& part) {
  Fault fault;
  std::size_t segment = 0;
  std::uint64_t base = 0;
  for (const std::uint32_t length : part.strandLengths) {
    if (!fault.Require(length <= part.cylinders.size() - segment, "strand's segments", segment)) break;
    for (std::uint32_t i = 0; i < length; ++i, ++segment)
      fault.Require(part.cylinders[segment] == base + i, "segment's vertex", segment);
    base += std::uint64_t{length} + 1;
    fault.Require(base <= part.positions.size(), "strand's positions", segment);
  }
  fault.Require(segment == part.cylinders.size(), "segments without a strand", segment);
  const std::size_t count = part.positions.size();
  fault.Require(!part.uvSets.empty() && part.uvSets[0].values.size() == count, "strands' uvs", count);
  fault.Require(!part.scalarSets.empty() && part.scalarSets[0].values.size() == count, "strands' radii",
                count);
  return fault.text;
}

std::string ValidatePart(const Part& part) {
  PartCheck check{part};
  for (const auto& set : part.scalarSets) check.CheckArray(set.values, "scalars");
  for (const auto& set : part.uvSets) check.CheckArray(set.values, "uvs");
  for (const auto& set : part.vectorSets) check.CheckArray(set.values, "vectors");
  check.CheckArray(part.normals, "normals");
  check.CheckArray(part.tangents, "tangents");
  check.CheckCornerVectors(part.cornerNormals, part.normals, "corners' normals");
  check.CheckCornerVectors(part.cornerTangents, part.tangents, "corners' tangents");
  for (std::size_t i = 0; i < part.particles.size(); ++i) check.CheckRound(part.particles[i], 1, i);
  for (std::size_t i = 0; i < part.cylinders.size(); ++i) check.CheckRound(part.cylinders[i], 2, i);
  check.CheckFaces(part.triangles);
  check.CheckFaces(part.tetragons);
  check.fault.Require(IsShader(part.shader), "part's shader");
  for (std::size_t i = 0; i < part.primitiveShaders.size(); ++i)
    check.fault.Require(IsShader(part.primitiveShaders[i]), "primitive's shader", i);
  return check.fault.text;
}

std::string ValidateDensity(const Part& part) {
  if (part.density == nullptr) return {};
  Fault fault;
  CheckGrid(part.density->triangles, part.triangles.size(), fault);
  CheckGrid(part.density->tetragons, part.tetragons.size(), fault);
  return fault.text;
}

std::string ValidateEmission(const Object& object) {
  Fault fault;
  CheckEmission(object, object.emitters, fault);
  CheckEmission(object, object.virtualLights, fault);
  return fault.text;
}

}  // namespace zp
