// Update: moves what moves, and makes the trees of rays anew.

#include "accel/accel.h"
#include "accel/collapse.h"
#include "accel/update_steps.h"
#include "core/index.h"
#include "core/release.h"
#include "core/stop.h"
#include "core/threads.h"
#include "core/validate.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"

namespace zp {
namespace {

void MoveVertices(Part& part, int passes) {
  if (!part.motion || passes < 1) return;
  for (const auto& set : part.vectorSets) {
    if (set.name != "motion" || set.values.size() != part.positions.size()) continue;
#pragma omp parallel for schedule(static) if (IsWorthThreads(part.positions.size(), 5))
    for (std::size_t i = 0; i < part.positions.size(); ++i)
      part.positions[i] += set.values[i] / static_cast<float>(passes);
  }
}

void LayOutTrees(Object& object, bool keepsNodes = true) {
  if (Stopping()) return;
  const CollapsedTree tree = CollapseTree(object);
  if (!keepsNodes && !kValidates) {  // before the largest arrays come
    Release(object.nodes);
    Release(object.references);
  }
  FillLanes(object, tree);
  if (kValidates) RequireSound(ValidateTree(object));
}

}  // namespace

void MoveObject(Object& object, float time) {
  if (!object.deformable || Stopping()) return;
  for (Part& part : object.parts) MovePart(part, time);
  for (Instance& instance : object.instances) {
    if (instance.object < 0) continue;
    MoveInstance(instance, time);
    FinishInstance(instance, At(objectTable, instance.object).bounds);
  }
  RotateTree(object);
  LayOutTrees(object);
}

void Update(Object& object, bool force, int passes, bool keepsNodes) {
  if ((!force && !object.deformable) || Stopping()) return;
  // Right after Build nothing has moved yet: the first pass sees vertices where the files put them.
  if (!force) {
    for (Part& part : object.parts) MoveVertices(part, passes);
    for (Instance& instance : object.instances)
      if (instance.object >= 0) FinishInstance(instance, At(objectTable, instance.object).bounds);
    RotateTree(object);
  }
  LayOutTrees(object, keepsNodes);
}

}  // namespace zp
