// integrator/integrator.h: turns rays into radiance and passes into a picture.
// No scene trouble stops a pass: samples that are no finite numbers become the error colour.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "core/ray.h"
#include "core/settings.h"
#include "core/stop.h"
#include "shading/shading.h"

namespace zp {

// Chooses the mode, limits the settings, prints the renderer's rows.
void InitializeRenderer();
void FinalizeRenderer();

// Radiance along the ray, linear RGB. Recursive; at depth 0 it writes the camera's AOVs.
Vec3 Radiance(RayRecord& ray);

// How many rays of a budget a colour deserves over all passes: a positive multiple of `passes`.
std::int32_t GatherCount(Vec3 color, std::int32_t budget, std::int32_t passes);

// Passes [begin, end).
struct PassRange {
  std::uint32_t begin = 0, end = 0;
  friend bool operator==(const PassRange&, const PassRange&) = default;
};

// What this process renders of a frame that others share. To be set before InitializeRenderer.
struct FrameShare {
  std::optional<PassRange> passes;  // none: all that the camera plans
  std::uint32_t photons = 0;        // which set of photons is cast: each number stands for another
};
inline FrameShare frameShare;
// Those passes, of the camera that is rendered.
PassRange PassesToRender();

// One pass into the beauty image, as a running mean. False if a stop has cut it short.
bool RenderPixels(std::uint32_t pass);
// One pass into `out`: `count` RGB triples of the region, row after row. No running mean is touched.
void RenderPixels(int count, float* out, int pass);
// One pass and all that surrounds it; finishes the frame after the last.
void FrameStep();
// All passes of the first camera; without one an error row. With settings.said.previewWindow a window shows
// them, which stays open until it is closed, passes left or not. Where no window opens: an error row and all
// passes.
//   held  passes that the AOVs hold already, as frameState says; the frame ends at once if that is all
void RenderLoop(std::uint32_t held = 0);

// Once a stop is requested (core/stop.h) RenderLoop returns in the midst of its pass and closes its window,
// and RenderPixels leaves the rest of its pixels out. Samples that were not finished leave no trace;
// frameState (imaging/frame_state.h) tells how many each pixel has, settings.frame.passIndex how many passes
// are whole.

// How far a frame has come.
struct FrameReport {
  std::uint32_t done = 0;  // whole passes
  std::uint32_t total = 0;
  float begun = 0;                // share of the rows of the pass that runs; 0 behind a pass
  std::uint64_t rays = 0;         // of the pass that runs or, behind it, of the last; shadow rays included
  std::int64_t microseconds = 0;  // of that pass so far
};
// What watches a frame; each may be null, and all may request a stop. They are called by the thread that
// called RenderLoop or FrameStep.
struct FrameObserver {
  // After each pass: the sums of the AOVs and frameState hold whole passes, to be read, shown or saved.
  std::function<void(const FrameReport&)> passDone;
  // In the midst of a pass, between rows, ten times a second at most: other threads still write the sums.
  std::function<void(const FrameReport&)> rowsDone;
  // Soon after framePause was set, in the midst of a pass: all threads wait behind whole rows, so that sums
  // and frameState can be read.
  std::function<void(const FrameReport&)> paused;
  bool finish = false;  // set by passDone: that pass is the frame's last
};
inline FrameObserver frameObserver;
// Set, as by rowsDone, to have `paused` called.
inline std::atomic<bool> framePause = false;

// Samples of a frame that were replaced or cut, of which the first pixels by pass and number are kept.
struct OddSamples {
  static constexpr std::size_t kMostPixels = 16;
  std::uint64_t samples = 0;
  std::vector<std::uint32_t> pixels;  // linear indices, each once
  std::array<double, 3> taken = {};   // light that was cut off, a sum over samples
};
struct FrameFaults {
  OddSamples notANumber;       // became settings.said.error
  OddSamples clamped;          // above settings.said.clamp
  OddSamples clampedIndirect;  // with light above settings.said.clampIndirect behind the first bounce
  std::uint64_t held = 0;      // samples of all pixels when this began
};

// Since RenderLoop began with a frame, of all passes but the one that runs.
inline FrameFaults frameFaults;
// The same with `taken` divided by the number of samples: what the picture lacks.
FrameFaults TellFaults();

// Visits the AOVs of a camera and of all lights, and those that go with them, always in the same order.
void VisitFrameAovs(Camera& camera, const std::function<void(Aov&)>& visit);

// The names that hits may have in a matte, by the alphabet, each once: paths of Instances below the root, or
// Shaders. Of more than 65536 the others are left out.
std::vector<MatteName> MatteNames(Channel channel);

// Mean and variance of a float image. Intended: one second moment, of the largest channel, for all three.
void ImageStatistics(const ImageBuffer& image, Vec3& mean, Vec3& variance);

}  // namespace zp
