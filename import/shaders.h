// import/shaders.h: materials of models as shaders of a scene.

#pragma once

#include <string>

#include "model.h"
#include "pictures.h"

namespace zp {

// The shader of a surface, as scene text, under that name. Takes its pictures over.
std::string ShaderText(ImportSurface surface, const std::string& name, ImportModel& model,
                       PictureShelf& shelf);

}  // namespace zp
