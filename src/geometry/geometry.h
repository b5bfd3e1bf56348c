// geometry/geometry.h: files and hosts fill Objects; this folder makes them ready for a tree.
// Readers take bytes or paths, keep or drop records whole, and say what they dropped in one row a load.

#pragma once

#include <string>
#include <string_view>

#include "geometry/object.h"

namespace zp {

// Reads a Wavefront OBJ file into `part`, merging with what it holds. Prints the rows of what was dropped.
// False, with an error row, if the file cannot be opened.
bool ReadObjFile(const std::string& path, Part& part);
// The same from memory.
void ReadObj(std::string_view text, Part& part);

Box TriangleBox(const Part& part, std::uint32_t index);
Box TetragonBox(const Part& part, std::uint32_t index);
Box ParticleBox(const Part& part, std::uint32_t index);
Box CylinderBox(const Part& part, std::uint32_t index);
// The box of one reference; an Instance's is its stored world box.
Box PrimitiveBox(const Object& object, const PrimitiveRef& reference);

// Areas by Heron's rule on squared edges, with the safe root; scene units squared.
float TriangleArea(const Part& part, std::uint32_t index);
float TetragonArea(const Part& part, std::uint32_t index);

// A point of a cylinder's Hermite curve at t in 0..1, and the vertices' unit tangents it is made of.
Vec3 CurvePoint(const Part& part, std::uint32_t cylinder, float t);

// The vertices of a hit primitive and how much each of them counts at the hit.
struct Corners {
  std::uint32_t vertex[4] = {};
  float weight[4] = {};
  int count = 0;
};
// `barycentric` as the hit tests give it; no vertices for other kinds than the four primitives.
Corners HitCorners(const Part& part, std::uint8_t kind, std::uint32_t index, Vec3 barycentric);
// Of the Part's first uv set; zero where it has no value for a vertex.
Vec2 CornerUv(const Corners& corners, const Part& part);

// Gives the Part the normals and tangents of its shaders' smoothing angles, in degrees: each corner of a
// triangle or tetragon sums the unit normals (and tangents) of the faces at its position within that angle of
// its own face. An angle of 0 leaves facets; a negative one keeps what is stored, a packed zero being nothing
// stored. Vertices split where corners differ, with the data of all sets; those of no primitive are dropped,
// and those of particles and cylinders stay as they are. An error row if a face points outside the positions;
// it is dropped. The result is the same for any number of threads.
void Smooth(Part& part);
// Validation, flipped faces, smoothing, strands: everything before the tree. Prints the rows of what is wrong
// and drops primitives that point outside the positions or have none that are finite.
void PreparePart(Part& part, const Object& object);
// Inverse and normal matrix of the Instance, and its world box around `bounds`.
void FinishInstance(Instance& instance, const Box& bounds);
bool Invert(const Mat4& matrix, Mat4& inverse);
// Fills both emission lists from the Parts' shaders and the Instances' Objects.
void BuildEmissionLists(Object& object);
void PrintObjectReport(const Object& object);

}  // namespace zp
