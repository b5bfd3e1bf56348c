// import/assimp_materials.h: materials as the older formats have them.

#pragma once

#include <assimp/scene.h>

#include "model.h"

namespace zp {

struct MaterialRules {
  bool screenColors = true;  // colours are those of a screen, else linear
  std::string folder;        // that names of pictures count from
};

// Appends the material as a surface, and the pictures that it names.
void ReadAssimpMaterial(const aiScene& scene, const aiMaterial& material, const MaterialRules& rules,
                        ImportModel& model);

}  // namespace zp
