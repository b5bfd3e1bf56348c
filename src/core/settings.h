// core/settings.h: RendererSettings, the one set of renderer scalars. There is exactly one, and hosts, scene
// text and the integrator share it.

#pragma once

#include <cstdint>

#include "core/vec.h"

namespace zp {

struct RendererSettings {
  std::int32_t format = 1;        // the rules that the scene is read and rendered by: 1 or 2
  std::int32_t activeCamera = 0;  // the one rendered: the first but where the program was told another
  // Not reset between runs: a second scene in the process inherits these.
  Vec3 clamp = {kFarthest, kFarthest, kFarthest};  // upper limit of one sample's radiance
  Vec3 error;                                      // stands in for a sample that is no finite number
  float exposure = 0;                              // Intended: kept for the format's sake, without effect
  float displayGamma = 2.2f;                       // Intended: likewise
  std::int32_t rendererBounce = 1;  // diffuse bounces before paths stop or the density cells answer
  float distance = 1;               // hits nearer than this are gathered further; scene units
  float distanceSquared = 1;
  float resolution = 1;      // target area of one density cell; scene units squared
  bool linearFiles = false;  // files of 8 bits keep linear numbers in format 2 too
  bool previewWindow = false;
  bool previewReturns = false;  // a closed window ends the render loop and not the process
  // Put back by ResetRenderer.
  std::int32_t rayDepth = 8;         // a ray of this depth or more returns black
  std::int32_t photonDepth = 16;     // a photon path longer than this stops
  std::int32_t rendererSample = 64;  // indirect rays of a first hit, over all passes
  bool finalGathering = false;
  float photonRadius = 1;  // of the photon gather; scene units
  float photonRadiusSquared = 1;
  float photonRadiusCubed = 1;
  std::int32_t rendererSampleCopy = 64;  // as it stood at renderer initialisation: weighs samples of the sky
  std::int32_t geometrySampleCopy = 64;  // and of the geometry light
  // State of the frame.
  std::uint32_t passIndex = 0;     // the pass that comes next
  std::int32_t samplePass = 8;     // the pass that runs
  std::uint16_t currentPass = 0;   // the same, as the camera ray sees it
  std::uint64_t rendererRays = 0;  // of the last pass
  std::uint64_t shadowRays = 0;
  std::int64_t renderMicroseconds = 0;
};
inline RendererSettings settings;

inline void ResetRenderer() {
  settings.photonDepth = 8;
  settings.rayDepth = 8;
  settings.rendererSample = 64;
  settings.finalGathering = false;
  settings.rendererRays = settings.shadowRays = 0;
  settings.renderMicroseconds = 0;
}

inline void ResetPhotonRadius() {
  settings.photonRadius = settings.photonRadiusSquared = settings.photonRadiusCubed = 1;
}

}  // namespace zp
