// integrator/integrator.h: turns rays into radiance and passes into a picture.
// No scene trouble stops a pass: samples that are no finite numbers become the error colour.

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "core/ray.h"
#include "core/settings.h"
#include "shading/shading.h"

namespace zp {

// Chooses the mode, limits the settings, prints the renderer's rows.
void InitializeRenderer();
void FinalizeRenderer();

// Radiance along the ray, linear RGB. Recursive; at depth 0 it writes the camera's AOVs.
Vec3 Radiance(RayRecord& ray);

// How many rays of a budget a colour deserves over all passes: a positive multiple of `passes`.
std::int32_t GatherCount(Vec3 color, std::int32_t budget, std::int32_t passes);

// One pass into the beauty image, as a running mean.
void RenderPixels(std::uint32_t pass);
// One pass into `out`: `count` RGB triples of the region, row after row. No running mean is touched.
void RenderPixels(int count, float* out, int pass);
// One pass and all that surrounds it; finishes the frame after the last.
void FrameStep();
// All passes of the first camera; without one an error row. With settings.previewWindow a window shows them,
// which stays open until it is closed, passes left or not. Where no window opens: an error row and all
// passes.
void RenderLoop();

// Ends RenderLoop behind the pass that runs, and closes its window: signal handlers may set it. What was
// rendered stays in the images; settings.passIndex tells how many passes that are.
inline std::atomic<bool> stopRequested = false;
static_assert(std::atomic<bool>::is_always_lock_free);

// What a program shows while a frame renders; called after each pass. Null for none.
struct PassReport {
  std::uint32_t done = 0;  // passes
  std::uint32_t total = 0;
  std::uint64_t rays = 0;         // of the pass, shadow rays included
  std::int64_t microseconds = 0;  // of the pass
};
extern std::function<void(const PassReport&)> passReporter;

// Mean and variance of a float image. Intended: one second moment, of the largest channel, for all three.
void ImageStatistics(const ImageBuffer& image, Vec3& mean, Vec3& variance);

}  // namespace zp
