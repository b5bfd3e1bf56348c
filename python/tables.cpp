#include "tables.h"

#include <algorithm>

#include "geometry/object.h"
#include "imaging/imaging.h"
#include "lights/lights.h"
#include "shading/shading.h"

namespace zp::python {
namespace {

struct TableRow {
  const char* word;  // of one record
  Table owner;       // kTables: none
};
constexpr TableRow kTableRows[] = {
    {"shader", kTables},
    {"object", kTables},
    {"camera", kTables},
    {"point light", kTables},
    {"parallel light", kTables},
    {"sky light AOV", kTables},
    {"geometry light AOV", kTables},
    {"layer", kShaders},
    {"displacement layer", kShaders},
    {"part", kObjects},
    {"instance", kObjects},
    {"AOV", kCameras},
    {"AOV", kPointLights},
    {"AOV", kParallelLights},
};
static_assert(std::size(kTableRows) == kTables);

// Of an owner that is there.
std::size_t SizeIn(Table table, int owner) {
  switch (table) {
    case kShaders:
      return shaders.size();
    case kObjects:
      return objectTable.size();
    case kCameras:
      return cameras.size();
    case kPointLights:
      return pointLights.size();
    case kParallelLights:
      return parallelLights.size();
    case kSkyAovs:
      return skyLight.aovs.size();
    case kGeometryAovs:
      return geometryLight.aovs.size();
    case kSurfaces:
      return ShaderAt(owner).surfaces.size();
    case kDisplacements:
      return ShaderAt(owner).geometry.vector.size();
    case kParts:
      return At(objectTable, owner).parts.size();
    case kInstances:
      return At(objectTable, owner).instances.size();
    case kCameraAovs:
      return At(cameras, owner).aovs.size();
    case kPointAovs:
      return At(pointLights, owner).aovs.size();
    case kParallelAovs:
      return At(parallelLights, owner).aovs.size();
    case kTables:
      break;
  }
  return 0;
}

void RequireIndex(const char* function, Table table, int index, std::size_t count) {
  if (index >= 0 && static_cast<std::size_t>(index) < count) return;
  throw py::index_error("zp." + std::string(function) + ": there is no " + kTableRows[table].word + " " +
                        std::to_string(index) + " of " + std::to_string(count));
}

}  // namespace

void RequireOwner(const char* function, Table table, int owner) {
  const Table kind = kTableRows[table].owner;
  RequireIndex(function, kind, owner, SizeIn(kind, 0));
}

void RequireRecord(const char* function, Table table, Indices indices) {
  if (IndexCount(table) == 1) return RequireIndex(function, table, indices[0], SizeIn(table, 0));
  RequireOwner(function, table, indices[0]);
  RequireIndex(function, table, indices[1], SizeIn(table, indices[0]));
}

void RequireFrame(const char* function, int width, int height) {
  if (cameras.empty()) return;
  const Camera& camera = cameras[0];
  const int columns = std::min(camera.width, camera.regionXMax) - std::max(camera.regionXMin, 0);
  const int rows = std::min(camera.height, camera.regionYMax) - std::max(camera.regionYMin, 0);
  if (width == columns && height == rows) return;
  throw py::value_error("zp." + std::string(function) + ": the region of the first camera has " +
                        std::to_string(columns) + " by " + std::to_string(rows) + " pixels, not " +
                        std::to_string(width) + " by " + std::to_string(height));
}

}  // namespace zp::python
