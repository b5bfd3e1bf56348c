// scene/blocks.h: one reader for each block of scene text. Each starts behind the line that opens its block
// and stops behind its "end"; none fails.

#pragma once

#include <string_view>

#include "geometry/object.h"
#include "imaging/imaging.h"
#include "lights/lights.h"
#include "scene/tokens.h"
#include "shading/shading.h"

namespace zp {

bool IsSectionKeyword(std::string_view keyword);

void ReadRenderSection(SceneText& text);
void ReadCameraSection(SceneText& text);  // appends to the camera table
void ReadObjectSection(SceneText& text);  // appends to the object table
// Reads the model files that objects have named, when all text is read: its format says how.
void ReadNamedModels();
void ReadShaderSection(SceneText& text);         // replaces the Shader of its name
void ReadPointLightSection(SceneText& text);     // appends to the point light table
void ReadParallelLightSection(SceneText& text);  // appends to the parallel light table
void ReadSkyLightSection(SceneText& text);       // starts from the defaults
void ReadGeometryLightSection(SceneText& text);  // goes on from what is set

// Shared by several sections. True: a block's keyword was known.
bool ReadAovBlock(SceneText& text, Aov& aov, AovOwner owner);
bool ReadLinkBlock(SceneText& text, ShaderLink& link);
bool ReadVolumeBlock(SceneText& text, VolumeShader& volume);

// A file of strands in the manner of scene text, into `part`: "segment" lines give strand lengths, "position"
// lines points. Prints one row if the strands ask for more points than there are. False, without a row, if
// the file cannot be opened.
bool ReadFurFile(const std::string& path, Part& part);
void ReadFur(SceneText& text, Part& part);

}  // namespace zp
