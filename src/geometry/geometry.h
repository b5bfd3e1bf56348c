// geometry/geometry.h: files and hosts fill Objects; this folder makes them ready for a tree.
// Readers take bytes or paths, keep or drop records whole, and say what they dropped in one row a load.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "geometry/object.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// What a load of an OBJ file met and left out.
struct ObjReport {
  std::size_t positions = 0, faces = 0;  // lines that were read as such; dropped faces among them
  std::size_t polygons = 0;              // faces of five corners or more, dropped
  std::size_t slivers = 0;               // of less than three, dropped
  std::size_t concave = 0;               // of four, split across the first and third corner
  std::size_t outOfRange = 0;            // with corners that are not there, dropped
  std::size_t longLines = 0;             // dropped
  std::size_t unnamed = 0;               // faces before the first usemtl
  struct Group {
    std::string name;  // of the last "o" or "g"; empty before the first
    std::size_t polygons = 0;
  };
  std::vector<Group> groups;  // with polygons; the first ones
};

// What became of the file with a model as it is when the shutter closes.
enum class EndResult {
  kTaken,
  kMissing,  // cannot be opened
  kOther,    // another number of vertices, or of faces and their corners
};

// Reads a Wavefront OBJ file into `part`, merging with what it holds. Prints the rows of what was dropped,
// and counts it in `report` if there is one. False, with an error row, if the file cannot be opened. With an
// `endPath` the vertices get a vector set "motion", towards that file's of the same number, and its normals;
// an error row, and no motion, if it does not fit.
bool ReadObjFile(const std::string& path, Part& part, ObjReport* report = nullptr,
                 const std::string& endPath = {}, EndResult* endResult = nullptr);
// The row of an end that does not fit.
void PrintOtherEnd(const std::string& path, const std::string& endPath);
// The same from memory, in pieces of so many bytes, which change nothing.
void ReadObj(std::string_view text, Part& part, std::size_t pieceBytes = std::size_t{1} << 18U);

// Lays strands one after the other over the positions that a Part has: a strand of n segments is n cylinders
// and owns n + 1 positions.
struct StrandLayout {
  Part& part;
  std::uint64_t base = 0;  // first position of the next strand
  bool dropped = false;    // some strand asked for positions that are not there

  // Appends the segments that end within the positions, and one strand length: their number. Nothing, and
  // false, once no position is left.
  bool Add(std::uint64_t segments);
  // Prints the row of what was dropped.
  void Finish() const;
};

// For a Part with cylinders whose vertices all exist: marks its shader as one of hair, appends a scalar set
// "parameter" (0 at the root of each strand, rising evenly, below 1 at its tip) and gives each vertex the
// direction of its strand as tangent.
void DeriveStrands(Part& part);
// The tangents of strands alone.
void DeriveStrandTangents(Part& part);
// Lets the radius and length layers of the Part's Shader act: both are factors, found at the texture
// coordinates of a strand's root or a particle. A shorter strand is the beginning of the whole one, a longer
// one goes straight on at its tip; what is left with no radius or no length is dropped. False if nothing
// asks for it, as in format 1.
bool ScaleStrands(Part& part);

// Reads a binary hair file into `part`, whose positions, first uv set and first scalar set become those of
// the file. False, with a row and an untouched Part, if the file cannot be read or ends before what its
// header promises. Prints one row if the strands ask for more points than there are.
bool ReadHairFile(const std::string& path, Part& part);
// Gives the Part of a hair file the vector set "motion" towards the points of another one, in their order. A
// row, and no motion, unless that has as many points in strands as long.
EndResult ReadHairEnd(const std::string& path, const std::string& endPath, Part& part);
// The same from memory; `name` stands in the rows.
bool ReadHair(std::string_view bytes, const std::string& name, Part& part);

// What the pixels of a picture can be to a Part.
enum class ArrayKind { kPosition, kUv, kNormal, kTangent, kTriangle, kParticle };
enum class ArrayResult {
  kRead,
  kNothing,    // no name
  kNotLoaded,  // no such file in the search paths, or no picture in it
  kUnfit,      // not of 32-bit floats, or with too few components: nothing was added
};
// Finds the picture as textures are found and appends its pixels, the top row first, to one array of the
// Part. The picture is the geometry's own copy: no texture, never packed. Prints a row unless all of it was
// added. `problem`, where it is given, becomes that of a picture that is not loaded.
ArrayResult ReadArrayImage(ArrayKind kind, const std::string& name, Part& part,
                           PictureProblem* problem = nullptr);
// The same with the picture in hand; its fileName stands in the rows.
ArrayResult AddArrayImage(ArrayKind kind, ImageBuffer image, Part& part);

Box TriangleBox(const Part& part, std::uint32_t index);
Box TetragonBox(const Part& part, std::uint32_t index);
Box ParticleBox(const Part& part, std::uint32_t index);
Box CylinderBox(const Part& part, std::uint32_t index);
// Around the eight corners of what it places, in the world, as objectTable has it; empty where it cannot be
// hit.
Box InstanceBox(const Instance& instance);
Box PrimitiveBox(const Object& object, const PrimitiveRef& reference);

// Areas by Heron's rule on squared edges; scene units squared. By the safe root in format 1, so that none is
// below 2.5e-6.
float TriangleArea(const Part& part, std::uint32_t index);
float TetragonArea(const Part& part, std::uint32_t index);

// How long the tangents of a segment with that chord are: as it is itself, so that the shape of a strand does
// not depend on its size; 1 scene unit in format 1.
float StrandTangentLength(Vec3 chord);
// A point of a cubic Hermite curve at t in 0..1.
Vec3 CurvePoint(Vec3 p0, Vec3 p1, Vec3 tangent0, Vec3 tangent1, float t);
// The same on that of a cylinder, of its vertices' tangents.
Vec3 CurvePoint(const Part& part, std::uint32_t cylinder, float t);
// The curve's unit direction over the straight piece whose middle is at t: zero where it stands still.
Vec3 CurveAxis(const Part& part, std::uint32_t cylinder, float t);

// Whether the uvs of the first three corners run round the other way than the corners themselves. Asked of
// Parts with `mirroredUvs` alone: there tangents run along u, and the bitangent is minus the product of
// normal and tangent on such faces. Elsewhere, and in format 1, it is that product, and tangents run against
// u.
bool IsMirrored(const Part& part, const std::uint32_t* vertex);
// The vertices of a hit primitive and how much each of them counts at the hit.
struct Corners {
  std::uint32_t vertex[4] = {};
  float weight[4] = {};
  int count = 0;
};
// `barycentric` as the hit tests give it; no vertices for other kinds than the four primitives.
Corners HitCorners(const Part& part, std::uint8_t kind, std::uint32_t index, Vec3 barycentric);
// The number of a triangle or tetragon among all faces of its Part, as CornerVectors count them.
inline std::size_t FaceNumber(const Part& part, std::uint8_t kind, std::uint32_t index) {
  return index + (kind == kKindTetragon ? part.triangles.size() : 0);
}
// The normals, and tangents, of the corners of a triangle or tetragon. False where one of them has none.
bool CornerNormals(const Corners& corners, const Part& part, std::uint8_t kind, std::uint32_t index,
                   PackedVector (&of)[4]);
bool CornerTangents(const Corners& corners, const Part& part, std::uint8_t kind, std::uint32_t index,
                    PackedVector (&of)[4]);
// Of the Part's first uv set, zero where it has no value for a vertex.
Vec2 FirstUv(const Corners& corners, const Part& part);
void TakeNamedUvs(const Corners& corners, const Part& part, SurfaceUv& uv);
// Of the first set, and of the others if they are asked for. `uv` is new; the little that most need is
// copied.
inline void TakeCornerUv(const Corners& corners, const Part& part, SurfaceUv& uv) {
  static_cast<Vec2&>(uv) = FirstUv(corners, part);
  if (!part.uvSets.empty() && !part.namedUvs.empty()) [[unlikely]]
    TakeNamedUvs(corners, part, uv);
}
inline SurfaceUv CornerUv(const Corners& corners, const Part& part) {
  SurfaceUv uv;
  TakeCornerUv(corners, part, uv);
  return uv;
}
// The Part's set of that number of uvSetNames, else the first. The Part has one.
const VertexSet<Vec2>& UvSetOf(const Part& part, std::int32_t set);

// Gives the Part the normals and tangents of its shaders' smoothing angles, in degrees: each corner of a
// triangle or tetragon sums the unit normals (and tangents) of the faces at its position within that angle of
// its own face. An angle of 0 leaves facets; a negative one keeps what is stored, a packed zero being nothing
// stored. Vertices split where corners differ, with the data of all sets; those of no primitive are dropped,
// and those of particles and cylinders stay as they are. An error row if a face points outside the positions;
// it is dropped. The result is the same for any number of threads. With `keepsVertices` none split where the
// vectors are those of the vertices or, but for a few, of whole faces, which then stand in cornerNormals and
// cornerTangents.
void Smooth(Part& part, bool keepsVertices = false);
// Validation, flipped faces, smoothing, strands: everything before the tree. Prints the rows of what is wrong
// and drops primitives that point outside the positions or have none that are finite.
void PreparePart(Part& part, const Object& object);
// Splits and moves the triangles of shaders with vector displacement layers, one layer after another, Smooth
// before each: a layer of level L makes L * L triangles of one, on a curved patch through the corners (scene
// units). Tetragons become triangles when some shader has a layer. Points on an edge are equal to the bit
// for both its triangles where these agree on the corners' normals, tangents and uvs. Vertices that no
// primitive uses any more stay until the next Smooth. Shaders and their textures are initialised before; the
// Part is validated. A triangle with a corner that has no normal or no tangent is kept as it is.
// Without normals a warning row, and an error row for a level whose triangles 32-bit indices or the memory
// cannot hold: the layers from there on are left out.
void Displace(Part& part);
// The inverse of the Instance's matrix, and whether it can be hit if what it places has those bounds.
void FinishInstance(Instance& instance, const Box& bounds);
bool Invert(const Mat4& matrix, Mat4& inverse);
// Fills the emission lists from the Parts' shaders and the Instances' Objects, which are ready.
void BuildEmissionLists(Object& object);
void PrintObjectReport(const Object& object);

}  // namespace zp
