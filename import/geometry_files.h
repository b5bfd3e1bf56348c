// import/geometry_files.h: meshes as files that a scene's objects name.

#pragma once

#include <string>
#include <vector>

#include "core/box.h"
#include "model.h"

namespace zp {

// Writes parts of one object into one file, as OBJ or, with `binary`, as a geometry file.
//   names    shaders of those of the model's surfaces
//   uvSets   texture coordinates that each surface's pictures are read by
void WriteGeometry(const ImportModel& model, const std::vector<std::int32_t>& parts,
                   const std::vector<std::string>& names, const std::vector<std::int32_t>& uvSets,
                   const std::string& path, bool binary);

}  // namespace zp
