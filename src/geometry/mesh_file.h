// geometry/mesh_file.h: models as arrays of bytes, which load many times faster than text.
// A file is little-endian: a header of 32 bytes, then the arrays that it counts (see docs/scene-format.md).

#pragma once

#include <string>
#include <string_view>

#include "geometry/object.h"

namespace zp {

// Reads a mesh file into a Part without vertices. False, with a row and an untouched Part, if the file cannot
// be read, is no such file, or ends before what its header promises. Faces with a vertex that is not there
// stay out, with a warning.
bool ReadMeshFile(const std::string& path, Part& part);
// The same from memory; `name` stands in the rows.
bool ReadMesh(std::string_view bytes, const std::string& name, Part& part);
// Writes the faces of a Part with their vertices, texture coordinates and normals. False if that failed.
bool WriteMeshFile(const std::string& path, const Part& part);

}  // namespace zp
