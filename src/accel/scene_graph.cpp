// The graph of Objects: which one rays enter first, how deep the others lie, and when each is initialised.

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>

#include "accel/accel.h"
#include "core/console.h"
#include "core/index.h"
#include "core/progress.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/stop.h"
#include "geometry/density.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "shading/hair.h"
#include "shading/shading.h"

namespace zp {

std::int32_t rootObject = kNone;
bool cutOutsExist = false;
std::uint32_t sceneNumber = 0;
Box sceneBounds;
Vec3 sceneCenter;
float sceneRadius = 0;

namespace {

// `onPath` marks the Objects above.
void AssignLevel(std::int32_t index, int level, std::vector<bool>& onPath, std::vector<InstanceCut>& cuts) {
  Object& object = At(objectTable, index);
  object.level = std::max(object.level, level);
  At(onPath, index) = true;
  for (std::size_t i = 0; i < object.instances.size(); ++i) {
    Instance& instance = object.instances[i];
    if (instance.object < 0) continue;
    const bool isCycle = At(onPath, instance.object);
    if (isCycle || level + 1 > kMostInstanceLevels) {
      cuts.push_back({index, i, instance.object, isCycle});
      instance.object = kNone;
    } else if (At(objectTable, instance.object).level < level + 1) {
      AssignLevel(instance.object, level + 1, onPath, cuts);
    }
  }
  At(onPath, index) = false;
}

void PrintCut(const InstanceCut& cut) {
  const std::string& name = At(objectTable, cut.object).name;
  if (cut.isCycle)
    PrintError("object - " + name + " places " + At(objectTable, cut.placed).name + " in itself",
               {"object-in-itself"});
  else
    PrintError("object - more than " + std::to_string(kMostInstanceLevels) + " instance levels at " + name,
               {"instance-levels"});
  PrintRule();
}

void LimitParts(Object& object) {
  if (object.parts.size() <= kMostParts) return;
  PrintError("object - more than " + std::to_string(kMostParts) + " parts in " + object.name,
             {"object-parts"});
  PrintRule();
  object.parts.resize(kMostParts);
}

void InitializeObject(Object& object) {
  LimitParts(object);
  object.deformable = false;
  for (Part& part : object.parts) {
    PreparePart(part, object);
    if (part.motion) object.deformable = true;
  }
  for (Instance& instance : object.instances) {
    const bool placed = instance.object >= 0;
    PrepareMotion(instance);
    if (MotionOf(instance) != nullptr) object.deformable = true;
    FinishInstance(instance, placed ? At(objectTable, instance.object).bounds : Box{});
    // What moves inside an Instance moves the boxes around it.
    if (placed && At(objectTable, instance.object).deformable) object.deformable = true;
  }
  Build(object);
  Update(object, true, 1, object.deformable);
  if (Stopping()) return;
  TransferRootCoordinates(object);
  bool scaled = false;
  for (Part& part : object.parts) scaled |= ScaleStrands(part);
  if (scaled) {  // roots had to be found first
    Build(object);
    Update(object, true, 1, object.deformable);
    if (Stopping()) return;
  }
  if (!object.deformable) {
    Release(object.nodes);
    Release(object.references);
  }
  BuildEmissionLists(object);
  PrintObjectReport(object);
}

// Whether anything in an Object may shine, by what its emission lists held before it moved.
bool Emits(const Object& object) {
  return !object.emitters.records.empty() || !object.virtualLights.records.empty() ||
         !object.faces.records.empty();
}

int HighestLevel() {
  int highest = 0;
  for (const Object& object : objectTable) highest = std::max(highest, object.level);
  return highest;
}

void TakeSceneBounds() {
  sceneBounds = At(objectTable, rootObject).bounds;
  sceneCenter = Center(sceneBounds);
  sceneRadius = IsEmpty(sceneBounds) ? 0.0f : 0.5f * SafeLength(sceneBounds.max - sceneBounds.min);
}

}  // namespace

void ResolveInstances() {
  std::unordered_map<std::string_view, std::int32_t> indices;
  for (std::size_t i = 0; i < objectTable.size(); ++i)
    indices.try_emplace(objectTable[i].name, static_cast<std::int32_t>(i));
  for (Object& object : objectTable)
    for (Instance& instance : object.instances) {
      if (instance.object >= static_cast<std::int32_t>(objectTable.size())) instance.object = kNone;
      if (instance.object >= 0) continue;
      const auto found = indices.find(instance.objectName.Text());
      if (found != indices.end()) instance.object = found->second;
    }
}

std::int32_t FindRootObject() {
  for (Object& object : objectTable) object.referenced = false;
  for (const Object& object : objectTable)
    for (const Instance& instance : object.instances)
      if (instance.object >= 0) At(objectTable, instance.object).referenced = true;
  for (std::size_t i = objectTable.size(); i-- > 0;)
    if (!objectTable[i].referenced) return static_cast<std::int32_t>(i);
  return kNone;
}

bool JoinUnplaced(std::int32_t root) {
  bool joined = false;
  for (std::size_t i = 0; i < objectTable.size(); ++i) {
    if (objectTable[i].referenced || static_cast<std::int32_t>(i) == root) continue;
    At(objectTable, root).instances.emplace_back().object = static_cast<std::int32_t>(i);
    joined = true;
  }
  return joined;
}

void AssignLevels(std::int32_t index, std::vector<InstanceCut>& cuts) {
  std::vector<bool> onPath(objectTable.size(), false);
  AssignLevel(index, 0, onPath, cuts);
}

void InitializeAccelerator() {
  ++sceneNumber;
  rootObject = kNone;
  cutOutsExist = std::any_of(shaders.begin(), shaders.end(), [](const Shader& s) { return s.cutsOut; });
  sceneBounds = Box{};
  sceneCenter = kBlack;
  sceneRadius = 0;
  if (objectTable.empty()) return;
  ResolveInstances();
  rootObject = FindRootObject();
  if (rootObject == kNone) {
    PrintError("object - there is no root object", {"object-no-root"});
    PrintRule();
    return;
  }
  if (JoinUnplaced(rootObject)) {
    PrintWarning("object - " + At(objectTable, rootObject).name + " is treated as the root object",
                 {"object-joined"});
    PrintRule();
  }
  for (Object& object : objectTable) object.level = -1;  // unreached Objects stay there, and out of the way
  std::vector<InstanceCut> cuts;
  AssignLevels(rootObject, cuts);
  for (const InstanceCut& cut : cuts) PrintCut(cut);
  BeginWork(Phase::kBuilding, static_cast<std::uint64_t>(
                                  std::count_if(objectTable.begin(), objectTable.end(),
                                                [](const Object& object) { return object.level >= 0; })));
  for (int level = HighestLevel(); level >= 0; --level)
    for (Object& object : objectTable) {
      if (object.level != level || Stopping()) continue;
      InitializeObject(object);
      FinishWork(Phase::kBuilding);
    }
  if (Stopping()) rootObject = kNone;  // what is half built shall never be walked
  if (rootObject == kNone) return;
  TakeSceneBounds();
  for (Part& part : At(objectTable, rootObject).parts) SetUpDensity(part);
  PrintVectorRow("scene size  ", sceneBounds.max - sceneBounds.min, "m");
  PrintVectorRow("scene min   ", sceneBounds.min, "n/a");
  PrintVectorRow("scene max   ", sceneBounds.max, "n/a");
  PrintVectorRow("scene center", sceneCenter, "n/a");
  PrintRule();
  InitializeFibers();
}

void FinalizeAccelerator() {
  Release(objectTable);
  Release(instanceMotions);
  Release(perspectiveRows);
  ForgetSharedNames();
  rootObject = kNone;
}

void UpdateScene(int passes) {
  if (rootObject == kNone || settings.format >= 2) return;
  for (int level = HighestLevel(); level >= 0; --level)
    for (Object& object : objectTable)
      if (object.level == level && object.deformable) Update(object, false, passes);
  TakeSceneBounds();
}

void MoveScene(float time) {
  // What moves inside an Instance makes the Objects around it deformable, up to the root.
  if (rootObject == kNone || settings.format < 2 || !At(objectTable, rootObject).deformable) return;
  for (int level = HighestLevel(); level >= 0; --level)
    for (Object& object : objectTable)
      if (object.level == level) {
        MoveObject(object, time);
        if (object.deformable && Emits(object)) BuildEmissionLists(object);  // areas may have grown
      }
  TakeSceneBounds();
}

}  // namespace zp
