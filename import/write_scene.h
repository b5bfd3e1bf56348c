// import/write_scene.h: models as a scene folder of format 2 that a person can go on editing.

#pragma once

#include <string>
#include <vector>

#include "model.h"

namespace zp {

struct WriteSettings {
  std::string folder;   // exists, and is empty
  std::string sky;      // a picture; empty: none
  bool binary = false;  // geometry files in place of OBJ
  bool stage = false;   // where no light is: a sky, a sun, and ground below the models
};

// Writes the folder, with what was lost in its file import.txt. Throws ImportError where it cannot.
void WriteScene(std::vector<ImportModel>& models, const WriteSettings& settings);

}  // namespace zp
