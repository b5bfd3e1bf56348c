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

}  // namespace zp
