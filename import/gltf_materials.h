// import/gltf_materials.h: materials and textures of glTF 2 with its extensions.

#pragma once

#include "gltf_file.h"
#include "model.h"

namespace zp {

// Pictures of the model become the images of the file, surfaces its materials, in their order.
void ReadGltfMaterials(const GltfFile& file, ImportModel& model);

}  // namespace zp
