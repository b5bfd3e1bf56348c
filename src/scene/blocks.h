// scene/blocks.h: one reader for each block of scene text. Each starts behind the line that opens its block
// and stops behind its "end"; none fails.

#pragma once

#include <istream>

#include "imaging/imaging.h"
#include "lights/lights.h"
#include "shading/shading.h"

namespace zp {

void ReadRenderSection(std::istream& stream);
void ReadCameraSection(std::istream& stream);         // appends to the camera table
void ReadObjectSection(std::istream& stream);         // appends to the object table
void ReadShaderSection(std::istream& stream);         // replaces the Shader of its name
void ReadSkyLightSection(std::istream& stream);       // starts from the defaults
void ReadGeometryLightSection(std::istream& stream);  // goes on from what is set

// Shared by several sections.
void ReadAovBlock(std::istream& stream, Aov& aov);
void ReadLinkBlock(std::istream& stream, ShaderLink& link);
void ReadVolumeBlock(std::istream& stream, VolumeShader& volume);

}  // namespace zp
