// geometry/object.h: the records of everything that can be hit. One table of Objects; an Object owns Parts
// (primitives with vertex arrays) and Instances (placed references to other Objects).

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/box.h"
#include "core/distribution.h"
#include "core/ray.h"
#include "core/release.h"
#include "core/shared_name.h"
#include "core/vec.h"

namespace zp {

// A unit vector in three signed bytes; zero means no vector.
struct PackedVector {
  std::int8_t x = 0, y = 0, z = 0;
  friend bool operator==(const PackedVector&, const PackedVector&) = default;
};
static_assert(sizeof(PackedVector) == 3);
PackedVector Pack(Vec3 v);
inline bool IsZero(PackedVector v) { return v.x == 0 && v.y == 0 && v.z == 0; }
// Its bytes in one word, x the lowest.
inline std::uint32_t Bytes(PackedVector v) {
  const auto byte = [](std::int8_t x) { return static_cast<std::uint32_t>(static_cast<std::uint8_t>(x)); };
  return byte(v.x) | byte(v.y) << 8U | byte(v.z) << 16U;
}
inline Vec3 Unpack(PackedVector v) {  // not of unit length: at most 127 in each component
  return {static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z)};
}

struct Triangle {
  std::uint32_t vertex[3];
  std::int32_t shader;
};
struct Tetragon {
  std::uint32_t vertex[4];  // around its rim
  std::int32_t shader;
};
static_assert(sizeof(Triangle) == 16 && sizeof(Tetragon) == 20);

// Named data, one value a vertex or none at all.
template <class T>
struct VertexSet {
  std::string name;
  std::vector<T> values;
};

struct DensityCells;  // geometry/density.h

// A vector for each corner of the faces, where hardly any face has several: triangles stand before tetragons.
struct CornerVectors {
  struct Varied {
    std::uint32_t face;
    PackedVector of[4];
  };
  std::vector<PackedVector> values;  // one a face, or none; kVaried where its corners differ
  std::vector<Varied> varied;        // those, in the order of the faces
};
inline constexpr PackedVector kVaried = {-128, 0, 0};  // no vector packs to it

// Vertices of a Part at one instant.
struct VertexState {
  std::vector<Vec3> positions;
  std::vector<PackedVector> normals, tangents;
};

struct Part {
  std::vector<std::uint32_t> particles;  // a particle's vertex
  std::vector<std::uint32_t> cylinders;  // a segment's first vertex; it runs to the next one
  RawVector<Triangle> triangles;
  RawVector<Tetragon> tetragons;
  std::vector<std::uint32_t> strandLengths;  // segments of each strand
  std::vector<VertexSet<Vec3>> vectorSets;
  std::vector<VertexSet<Vec2>> uvSets = {{"uv", {}}};
  std::vector<VertexSet<float>> scalarSets = {{"radius", {}}};
  std::vector<Vec3> positions;
  std::vector<PackedVector> normals;  // one a vertex, or none
  std::vector<PackedVector> tangents;
  CornerVectors cornerNormals, cornerTangents;  // in place of those, see Smooth
  std::vector<std::int32_t> primitiveShaders;
  std::int32_t shader = 0;
  std::string materialName;
  // Of a moving Part in format 2 (geometry/motion.h): its normals and tangents when the shutter closes, empty
  // where it has none, and all as it opens.
  std::vector<PackedVector> endNormals, endTangents;
  std::shared_ptr<const VertexState> atOpen;
  // Of a Part of the RootObject, while there are cells. A handle: a const Part's cells can be written.
  std::shared_ptr<DensityCells> density;
  // Values of its uv sets by uvSetNames, null where it has none of that name. Empty: no names.
  std::vector<const Vec2*> namedUvs;
  bool motion = false;       // some vector set is named "motion"
  bool mirroredUvs = false;  // see KeepsHandedness
};

// A matrix as rotation (a unit quaternion, its real part last), stretch (symmetric) and origin.
struct InstancePlace {
  std::array<double, 4> turn = {0, 0, 0, 1};
  std::array<std::array<double, 3>, 3> stretch = {};
  std::array<double, 3> origin = {};
};
struct InstanceMotion {
  Mat4 close;  // object to world when the shutter closes
  InstancePlace first, last;
  bool mirrored = false;  // both places are the opposites of what they say
};

// Two cache lines, the second with all that a ray asks for on its way in: scenes have millions of them.
struct alignas(64) Instance {
  Mat4 matrix;    // object to world; of a moving Instance at the instant that is rendered
  Mat34 inverse;  // filled at initialisation, see CanBeHit
  std::int32_t object = kNone;
  SharedName objectName;
  std::int32_t shader = kNone;  // overrides the Object's own shaders, unless kNone
  // What few have, and none both: where it moves, its index in instanceMotions; with a matrix in perspective,
  // kNone - 1 less the index in perspectiveRows; else kNone.
  std::int32_t aside = kNone;
};
static_assert(sizeof(Instance) == 128);

// The fourth row of an inverse that is not 0 0 0 1.
struct PerspectiveRow {
  float m[4];
};
extern std::vector<InstanceMotion> instanceMotions;  // of format 2, and of scene text
extern std::vector<PerspectiveRow> perspectiveRows;

// How the Instance moves; null where it stands still.
inline const InstanceMotion* MotionOf(const Instance& instance) {
  return instance.aside < 0 ? nullptr : &instanceMotions[static_cast<std::size_t>(instance.aside)];
}

// False where FinishInstance found no inverse, nothing to place or no place for it.
inline bool CanBeHit(const Instance& instance) {
  return instance.inverse.m[0][0] == instance.inverse.m[0][0];
}

// A place of the world in the space of the Instance's Object.
inline Vec3 ToObject(const Instance& instance, Vec3 p) {
  const Vec3 place = TransformPoint(instance.inverse, p);
  if (instance.aside >= kNone) [[likely]]
    return place;
  const auto& row = perspectiveRows[static_cast<std::size_t>(kNone - 1 - instance.aside)].m;
  const float w = row[0] * p.x + row[1] * p.y + row[2] * p.z + row[3];
  return {place.x / w, place.y / w, place.z / w};
}

// For normals, from object to world: the transpose of the inverse's upper 3 x 3.
inline Mat3 NormalMatrix(const Instance& instance) {
  const auto& m = instance.inverse.m;
  return {{{m[0][0], m[1][0], m[2][0]}, {m[0][1], m[1][1], m[2][1]}, {m[0][2], m[1][2], m[2][2]}}};
}

// A number for the way to what an Instance places, from the number of the way to the Instance itself; 0
// stands for the RootObject. Tells the copies of a primitive apart.
inline std::uint64_t PlaceInside(std::uint64_t place, const Instance& instance) {
  return (place + reinterpret_cast<std::uintptr_t>(&instance)) * 0x9e3779b97f4a7c15ULL;
}

// One emitting side of a primitive, or an Instance that stands for all its Object's emitters.
struct EmissionRecord {
  std::int32_t part = kNone;  // index in the Object's parts; kNone for an instance
  std::uint8_t kind = kKindNone;
  std::uint8_t side = 1;  // 1 front, 0 back
  std::uint32_t index = 0;
  // Scene units squared, in the space of the list's Object. An Instance's is its Object's whole area, in
  // format 2 as its matrix scales areas in the mean of all directions (AreaScale).
  float area = 0;
};
struct EmissionList {
  std::vector<EmissionRecord> records;
  Distribution distribution;
  // Of format 2: running sums of the areas over the total, the last 1. Among a million faces the floats of a
  // Distribution, and draws of 24 bits, would miss some and prefer others.
  std::vector<double> shares;
  float area = 0;
};

// A primitive inside an Object.
struct PrimitiveRef {
  std::uint16_t part = 0;  // 0 for an instance
  std::uint16_t kind = 0;
  std::uint32_t index = 0;  // in the Part's list of that kind, or in the Object's instances
  friend bool operator==(const PrimitiveRef&, const PrimitiveRef&) = default;
};

// A node of the binary tree: half a cache line. Children stand next to each other, in one line.
struct alignas(32) BinaryNode {
  static constexpr std::uint32_t kRoot = 1;  // so that pairs begin at even places; place 0 is not in use

  Box box;
  std::uint32_t link = 1;  // inner node: its left child; leaf: twice its first reference, plus 1
  std::uint32_t size = 0;  // primitives below, and kCheapAsLeaf

  static constexpr std::uint32_t kCheapAsLeaf = 1U << 31U;  // the wide tree takes the inner node for a leaf
  // An Object without primitives has an empty leaf as its root; no other node has nothing below it.
  bool IsLeaf() const { return (link & 1U) != 0; }
  bool IsWideLeaf() const { return IsLeaf() || (size & kCheapAsLeaf) != 0; }
  std::uint32_t FirstReference() const { return link / 2; }
  std::uint32_t Sum() const { return size & ~kCheapAsLeaf; }
};
static_assert(sizeof(BinaryNode) == 32);

inline constexpr std::uint32_t kUnusedSlot = 0xFFFFFFFF;

// What is in eight boxes; the boxes stand in its PackedNode, if it has one.
struct WideNode {
  std::uint32_t child[8];  // a WideNode, or the first reference of a leaf
  std::uint16_t count[8];  // 0: an inner node
  std::uint32_t log[8];    // blocked shadow rays; after ordering, the bits of the slots' ratios
};

struct PackedTree;  // accel: the same tree, laid out for walking

struct Object {
  Box bounds;
  std::string name;
  std::int32_t shader = 0;  // of scene text; see PreparePart for when it reaches a Part
  std::vector<Part> parts;
  std::vector<Instance> instances;
  EmissionList emitters;       // what casts photons
  EmissionList virtualLights;  // what direct lighting samples
  EmissionList faces;          // all faces, side 1: made where a Shader of an Instance lets all of them emit
  bool deformable = false;     // some Part has motion
  // The tree: filled by accel.
  RawVector<PrimitiveRef> references;  // released after initialisation unless deformable
  RawVector<BinaryNode> nodes;         // likewise
  RawVector<WideNode> wideNodes;       // node 0 is the root
  RawVector<PrimitiveRef> compactReferences;
  std::shared_ptr<PackedTree> packed;
  std::int32_t level = 0;  // 0 for the RootObject, else its parent's plus 1
  std::int32_t wideDepth = 0;
  bool referenced = false;  // some Instance places it
  double treeCost = 0;
};

// The table; an index is the handle.
extern std::vector<Object> objectTable;

}  // namespace zp
