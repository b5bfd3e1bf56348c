#include "fuzz.h"

#include <omp.h>

#include <cstdio>
#include <cstdlib>

#include "core/console.h"
#include "core/files.h"
#include "core/settings.h"
#include "lights/lights.h"
#include "shading/shading.h"

namespace zp {

void ClearTables() {
  SetConsoleQuiet(true);
  filesHidden = true;
  omp_set_num_threads(1);  // waking others costs more than an input does
  shaders.clear();
  AddUndefinedShader();
  cameras.clear();
  objectTable.clear();
  images.clear();
  imageSearchPaths.assign(1, "");
  settings = {};
  pointLights.clear();
  parallelLights.clear();
  ResetSky();
  skyLight = {};
  ResetGeometryLight();
  geometryLight = {};
}

void Require(bool condition, int line) {
  if (condition) return;
  std::fprintf(stderr, "not well formed: line %d\n", line);
  std::abort();
}

void RequireStrands(const Part& part) {
  std::size_t segment = 0;
  std::uint64_t base = 0;
  for (const std::uint32_t length : part.strandLengths) {
    for (std::uint32_t i = 0; i < length; ++i, ++segment) {
      Require(segment < part.cylinders.size(), __LINE__);
      Require(part.cylinders[segment] == base + i, __LINE__);
    }
    base += std::uint64_t{length} + 1;
    Require(base <= part.positions.size(), __LINE__);
  }
  Require(segment == part.cylinders.size(), __LINE__);
  Require(part.uvSets.at(0).values.size() == part.positions.size(), __LINE__);
  Require(part.scalarSets.at(0).values.size() == part.positions.size(), __LINE__);
}

void RequirePrepared(Part& part) {
  PreparePart(part, Object());
  const std::size_t count = part.positions.size();
  const auto fits = [&](std::size_t size) { Require(size == 0 || size == count, __LINE__); };
  for (const auto& set : part.scalarSets) fits(set.values.size());
  for (const auto& set : part.uvSets) fits(set.values.size());
  for (const auto& set : part.vectorSets) fits(set.values.size());
  fits(part.normals.size());
  fits(part.tangents.size());
  for (const std::uint32_t vertex : part.particles) Require(vertex < count, __LINE__);
  for (const std::uint32_t vertex : part.cylinders) Require(vertex + 1ULL < count, __LINE__);
  const auto shader = [](std::int32_t index) { Require(HasShader(index), __LINE__); };
  for (const Triangle& triangle : part.triangles) {
    for (const std::uint32_t vertex : triangle.vertex) Require(vertex < count, __LINE__);
    shader(triangle.shader);
  }
  for (const Tetragon& tetragon : part.tetragons) {
    for (const std::uint32_t vertex : tetragon.vertex) Require(vertex < count, __LINE__);
    shader(tetragon.shader);
  }
}

}  // namespace zp
