// accel/accel.h: rays in, hits out.
// Trees change only in Build, Update and OrderOccluders; the rest runs on any thread.
// Nothing here fails: an empty scene is never hit.

#pragma once

#include <string>

#include "geometry/object.h"

namespace zp {

// The binary tree over all primitives of an Object, from scratch, and rotated.
void Build(Object& object);
// Moves vertices by motion / passes, refits and rotates the binary tree, and lays out the wide one.
// Without `force` only deformable Objects are touched; with it nothing has moved since Build, and the tree is
// laid out alone. Without `keepsNodes` the binary tree is given up before the last arrays come.
void Update(Object& object, bool force, int passes, bool keepsNodes = true);
// In format 2: puts a deformable Object to a time, 0 as the shutter opens to 1 as it closes, and its trees.
void MoveObject(Object& object, float time);
// Whether the trees that Update left are sound, binary, wide and packed; see core/validate.h.
std::string ValidateTree(const Object& object);
// Gives each strand the texture coordinates of the surface of the same Object that its root stands on; (0, 0)
// where there is none. An Object without surfaces keeps what it has. Needs the wide tree.
void TransferRootCoordinates(Object& object);
// After pass 0: sorts the slots of every wide node by what blocked shadow rays in it.
void OrderOccluders(Object& object);
void ClearOccluderLogs();

// The steps that InitializeAccelerator finds the graph by.
inline constexpr std::size_t kMostParts = 65535;  // of an Object
inline constexpr int kMostInstanceLevels = 16;    // of Instances around a primitive
void ResolveInstances();                          // names to indices; the first Object of equal names
std::int32_t FindRootObject();  // the last that no Instance places; sets `referenced` of all
// Adds to the root, as they stand, the other Objects that no Instance places. True if there are any.
bool JoinUnplaced(std::int32_t root);
struct InstanceCut {
  std::int32_t object = kNone;  // that holds the Instance
  std::size_t instance = 0;
  std::int32_t placed = kNone;  // what it placed
  bool isCycle = false;         // else it lies too deep
};
// Sets the levels of all Objects below `index`, which are -1 before, and cuts off Instances that would close
// a cycle or lie too deep.
void AssignLevels(std::int32_t index, std::vector<InstanceCut>& cuts);

// The graph of Objects.
extern std::int32_t rootObject;    // kNone in an empty table
extern bool cutOutsExist;          // hits on some Shader count by chance
extern std::uint32_t sceneNumber;  // of what InitializeAccelerator has made: another one each time
extern Box sceneBounds;
extern Vec3 sceneCenter;
extern float sceneRadius;
// Finds the RootObject, initialises Objects deepest first, prints the scene rows.
void InitializeAccelerator();
void FinalizeAccelerator();
// Between passes of format 1: moves deformable Objects, deepest level first, and the scene bound after them.
void UpdateScene(int passes);
// Before a pass of format 2: the same to the pass's time.
void MoveScene(float time);

// Nearest hit; counts the ray; fills the hit fields only on true. Needs origin and direction.
bool Trace(RayRecord& ray);

// Nearest triangle or tetragon below ray.t, which the caller sets, along a unit direction. Fills the hit
// fields on true. A triangle may be the ray's parent, a tetragon not.
bool TraceSurfaces(RayRecord& ray);

// Where a ray goes through the surfaces of bodies (Shader::isBody), by distance. Of more than there is room
// for the nearest stay.
struct BodyCrossing {
  float t;
  std::int32_t shader;
  bool front;
};
struct BodyCrossings {
  static constexpr int kMost = 64;
  BodyCrossing list[kMost];
  int count = 0;
};
void AddCrossing(BodyCrossings& crossings, const BodyCrossing& crossing);

// Walks from origin along direction (unit) to ray.t and multiplies ray.throughput, white at the start, by the
// transparency of every surface in between, but for the ray's parent. True, with a throughput of no meaning
// above black, when nothing is left; stops there. Counts the shadow ray. In pass 0
// (settings.frame.samplePass) the blocking slots of the RootObject are logged.
// `crossings`, where given, gets the bodies that an unblocked ray went through.
bool Occlude(RayRecord& ray, BodyCrossings* crossings = nullptr);

// Product of the normal matrices of the Instances around the ray's hit, outermost last; identity without.
// They stay in slots of the ray's thread, which its next Trace or TraceSurfaces, of whatever ray, writes
// over: to be asked right after the hit, on the same thread. Occlude leaves them alone.
Mat3 HitNormalMatrix(const RayRecord& ray);
// And those Instances, likewise: 0 the outermost, to hitMatrixDepth - 1.
const Instance& HitInstance(const RayRecord& ray, int level);

}  // namespace zp
