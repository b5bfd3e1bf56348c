// integrator/surface_layers.h: what camera rays leave in the layers of a frame that no other image has;
// private to this folder.

#pragma once

#include "core/ray.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// The camera's AOVs that want them, null without; and what all samples of the pass share.
struct LayerTargets {
  bool any = false;
  Aov *cover = nullptr, *view = nullptr, *facing = nullptr, *motion = nullptr, *albedo = nullptr;
  Aov *nearness = nullptr, *object = nullptr, *shader = nullptr;
  bool ofSamples = false;  // one of these three is there
  const Camera* camera = nullptr;
  CameraPose pose;  // at the pass's time
  float time = 0;   // where what moves stands: 0 when the shutter opens, 1 when it closes
};
extern LayerTargets layerTargets;

// Before the threads of a pass begin.
void FindLayerTargets(Camera& camera, const CameraPose& pose, std::uint32_t pass);

// Around each sample of a pixel, where layerTargets.ofSamples. What it has met counts when it is whole.
//   place  of the sample in the pixel, from 0 to 1
void BeginSampleLayers(std::uint8_t thread, std::size_t pixel, Vec2 place);
void FinishSampleLayers(std::uint8_t thread, int x, int y);

// Adds a first hit's value to an AOV of the camera, or puts it there if the sample is the nearest so far.
void AddToLayer(Aov& aov, const RayRecord& ray, Vec3 value);

// Of a ray that came by mirrors and glass alone. A hit is to be told before the thread's next Trace, with its
// elements tested.
void WriteHitLayers(const RayRecord& ray, const ShadingPoint& point);
void WriteMissLayers(const RayRecord& ray);
// Of a hit on a shadow catcher: how much of what is behind it can be seen.
void WriteCatcherLayer(const RayRecord& ray, float seen);
// A hit that has nothing to show hides what is behind it all the same.
void WriteEmptyHitLayers(const RayRecord& ray);

}  // namespace zp
