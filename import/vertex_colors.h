// import/vertex_colors.h: colours of vertices, which scenes have no word for, as pictures.

#pragma once

#include <string>
#include <vector>

#include "model.h"

namespace zp {

// Gives a mesh the colours of its vertices as a surface of its own, which is a copy of the one it has, in
// place of its colour or, with `multiplies`, as a factor of it. Where that has no pictures the colours become
// one, which every face reads its own part of; else their mean shows, with a loss.
//   colors  linear, one for each vertex
//   label   of the mesh, for people
void ApplyVertexColors(ImportModel& model, ImportMesh& mesh, const std::vector<Vec3>& colors, bool multiplies,
                       const std::string& label);

// A TGA file of 8 bits, the bottom row first, of bytes for blue, green and red.
std::vector<std::uint8_t> TgaFile(std::size_t width, std::size_t height,
                                  const std::vector<std::uint8_t>& pixels);

}  // namespace zp
