// The graph of Objects: which one rays enter first, how deep the others lie, and when each is initialised.

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>

#include "accel/accel.h"
#include "core/console.h"
#include "core/release.h"
#include "geometry/density.h"
#include "geometry/geometry.h"
#include "shading/hair.h"

namespace zp {

std::int32_t rootObject = kNone;
Box sceneBounds;
Vec3 sceneCenter;
float sceneRadius = 0;

namespace {

constexpr int kInstanceLevels = 16;  // of the matrix stacks
constexpr std::size_t kMostParts = 65535;

Object& At(std::int32_t index) { return objectTable[static_cast<std::size_t>(index)]; }

void ResolveInstances() {
  std::unordered_map<std::string_view, std::int32_t> first;  // of equal names
  for (std::size_t i = 0; i < objectTable.size(); ++i)
    first.try_emplace(objectTable[i].name, static_cast<std::int32_t>(i));
  for (Object& object : objectTable)
    for (Instance& instance : object.instances) {
      if (instance.object >= static_cast<std::int32_t>(objectTable.size())) instance.object = kNone;
      if (instance.object >= 0) continue;
      if (const auto found = first.find(instance.objectName); found != first.end())
        instance.object = found->second;
    }
}

void FindRoot() {
  for (Object& object : objectTable) object.referenced = false;
  for (Object& object : objectTable)
    for (const Instance& instance : object.instances)
      if (instance.object >= 0) At(instance.object).referenced = true;
  rootObject = kNone;
  int candidates = 0;
  for (std::size_t i = 0; i < objectTable.size(); ++i)
    if (!objectTable[i].referenced) {
      rootObject = static_cast<std::int32_t>(i);
      ++candidates;
    }
  if (candidates < 2) return;
  PrintWarning("object - " + At(rootObject).name + " is treated as the root object");
  PrintRule();
  for (std::size_t i = 0; i < objectTable.size(); ++i)
    if (!objectTable[i].referenced && static_cast<std::int32_t>(i) != rootObject) {
      Instance instance;
      instance.object = static_cast<std::int32_t>(i);
      At(rootObject).instances.push_back(instance);
    }
}

// Levels from `index` down; `onPath` marks the Objects above it. Instances that would close a cycle or lie
// too deep are cut off.
void AssignLevels(std::int32_t index, int level, std::vector<bool>& onPath) {
  Object& object = At(index);
  object.level = std::max(object.level, level);
  onPath[static_cast<std::size_t>(index)] = true;
  for (Instance& instance : object.instances) {
    if (instance.object < 0) continue;
    if (onPath[static_cast<std::size_t>(instance.object)]) {
      PrintError("object - " + object.name + " places " + At(instance.object).name + " in itself");
      PrintRule();
      instance.object = kNone;
    } else if (level + 1 > kInstanceLevels) {
      PrintError("object - more than 16 instance levels at " + object.name);
      PrintRule();
      instance.object = kNone;
    } else if (At(instance.object).level < level + 1) {
      AssignLevels(instance.object, level + 1, onPath);
    }
  }
  onPath[static_cast<std::size_t>(index)] = false;
}

void LimitParts(Object& object) {
  if (object.parts.size() <= kMostParts) return;
  PrintError("object - more than 65535 parts in " + object.name);
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
    FinishInstance(instance, placed ? At(instance.object).bounds : Box{});
    // What moves inside an Instance moves the boxes around it.
    if (placed && At(instance.object).deformable) object.deformable = true;
  }
  Build(object);
  Update(object, true, 1);
  TransferRootCoordinates(object);
  if (!object.deformable) {
    Release(object.nodes);
    Release(object.references);
  }
  BuildEmissionLists(object);
  PrintObjectReport(object);
}

int HighestLevel() {
  int highest = 0;
  for (const Object& object : objectTable) highest = std::max(highest, object.level);
  return highest;
}

void TakeSceneBounds() {
  sceneBounds = At(rootObject).bounds;
  sceneCenter = Center(sceneBounds);
  sceneRadius = IsEmpty(sceneBounds) ? 0.0f : 0.5f * SafeLength(sceneBounds.max - sceneBounds.min);
}

}  // namespace

void InitializeAccelerator() {
  rootObject = kNone;
  sceneBounds = Box{};
  sceneCenter = kBlack;
  sceneRadius = 0;
  if (objectTable.empty()) return;
  ResolveInstances();
  FindRoot();
  if (rootObject == kNone) {
    PrintError("object - there is no root object");
    PrintRule();
    return;
  }
  for (Object& object : objectTable) object.level = -1;  // unreached Objects stay there, and out of the way
  std::vector<bool> onPath(objectTable.size(), false);
  AssignLevels(rootObject, 0, onPath);
  for (int level = HighestLevel(); level >= 0; --level)
    for (Object& object : objectTable)
      if (object.level == level) InitializeObject(object);
  TakeSceneBounds();
  for (Part& part : At(rootObject).parts) SetUpDensity(part);
  PrintVectorRow("scene size  ", sceneBounds.max - sceneBounds.min, "m");
  PrintVectorRow("scene min   ", sceneBounds.min, "n/a");
  PrintVectorRow("scene max   ", sceneBounds.max, "n/a");
  PrintVectorRow("scene center", sceneCenter, "n/a");
  PrintRule();
  InitializeFibers();
}

void FinalizeAccelerator() {
  Release(objectTable);
  rootObject = kNone;
}

void UpdateScene(int passes) {
  if (rootObject == kNone) return;
  for (int level = HighestLevel(); level >= 0; --level)
    for (Object& object : objectTable)
      if (object.level == level && object.deformable) Update(object, false, passes);
  TakeSceneBounds();
}

}  // namespace zp
