// core/settings.h: RendererSettings, the one set of renderer scalars. There is exactly one, and hosts, scene
// text and the integrator share it.

#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include "core/vec.h"

namespace zp {

// What nobody has said: initialisation puts the default of the format in its place.
inline constexpr std::int32_t kUnsaid = std::numeric_limits<std::int32_t>::min();

// What scene text and hosts say. Renderer initialisation limits it to what can be rendered.
struct SaidSettings {
  // Not reset between runs: a second scene in the process inherits these.
  Vec3 clamp = {kFarthest, kFarthest, kFarthest};  // upper limit of one sample's radiance
  Vec3 error;                                      // stands in for a sample that is no finite number
  float exposure = 0;                              // Intended: stored, without effect
  float displayGamma = 2.2f;                       // Intended: likewise
  std::int32_t rendererBounce = 1;  // diffuse bounces before paths stop or the density cells answer
  bool halfSets = false;        // even and odd passes are kept apart, in format 2 with points of their own
  bool linearFiles = false;     // files of 8 bits keep linear numbers in format 2 too
  bool transparentSky = false;  // the beauty image leaves out what the camera sees of sky and backdrop
  bool previewWindow = false;
  bool previewReturns = false;  // a closed window ends the render loop and not the process
  // Of earlier runs: they hold in format 1 where this run says nothing.
  float keptDistance = 1, keptResolution = 1;
  // Put back by ResetRenderer.
  // Upper limit of what a ray brings that has left the first diffuse or rough surface, but for light that it
  // meets straight away. Of format 2.
  Vec3 clampIndirect = {kFarthest, kFarthest, kFarthest};
  std::int32_t rayDepth = 8;        // a ray of this depth or more returns black
  std::int32_t photonDepth = 16;    // a photon path longer than this stops; Intended: 8 once put back
  std::optional<float> distance;    // hits nearer than this are gathered further; scene units
  std::optional<float> resolution;  // target area of one density cell; scene units squared
  // Indirect rays of a first hit, over all passes or, in format 2, in each. Not said: see GatherBudget.
  std::int32_t rendererSample = kUnsaid;
  // Put back by ResetPhotonRadius.
  std::optional<float> photonRadius;  // of the photon gather; scene units
};

// What renderer initialisation makes of it.
struct DerivedSettings {
  bool finalGathering = false;  // put back by ResetRenderer
  bool seeksCells = false;      // in format 2 with it: paths end at cells, however many bounces that takes
  float photonRadius = 1;       // put back by ResetPhotonRadius
  float photonRadiusSquared = 1;
  std::int32_t rendererSampleCopy = 64;  // rendererSample as it stood then: weighs samples of the sky
  bool tracksMedia = false;  // rays know the bodies around them, and media dim whatever runs through them
  float openIor = 1;         // a ray's index in the open, where lights are sampled
  std::int32_t geometrySampleCopy = 64;  // and of the geometry light; put back by ResetGeometryLight
  bool showsTangents = true;             // some picture shows them, so that hits take the surface's own
  std::int32_t lightSegment = 0;  // 1 where rays leave the last hit to meet light: see SeeksLightByChance
};

// Where the frame is. The counters of the last pass are put back by ResetRenderer.
struct FrameSettings {
  std::int32_t activeCamera = 0;   // the one rendered: the first but where the program was told another
  std::uint32_t passIndex = 0;     // the pass that comes next
  std::int32_t samplePass = 8;     // the pass that runs
  std::uint64_t rendererRays = 0;  // of the last pass
  std::uint64_t shadowRays = 0;
  std::int64_t renderMicroseconds = 0;
};

struct RendererSettings {
  std::int32_t format = 1;       // the rules that the scene is read and rendered by: 1 or 2
  bool formatIsSettled = false;  // the program's user has chosen it: scene text has no say
  SaidSettings said;
  DerivedSettings derived;
  FrameSettings frame;
};
inline RendererSettings settings;

// What chooses final gathering: both are above 0 where nobody says anything in format 1, and 0 in format 2.
inline float GatherDistance() {
  return settings.said.distance.value_or(settings.format >= 2 ? 0 : settings.said.keptDistance);
}
inline float CellResolution() {
  return settings.said.resolution.value_or(settings.format >= 2 ? 0 : settings.said.keptResolution);
}
// Photons of the sky and of the geometry light, which format 1 casts without being asked.
inline std::int32_t PhotonsOf(const std::optional<std::int32_t>& said) {
  return said.value_or(settings.format >= 2 ? 0 : 1000000);
}
// `said`, or the format's default where nobody has said it. Format 2 counts in each pass.
inline std::int32_t SaidOr(std::int32_t said, std::int32_t overAllPasses, std::int32_t inEachPass) {
  if (said != kUnsaid) return said;
  return settings.format >= 2 ? inEachPass : overAllPasses;
}
inline std::int32_t GatherBudget() { return SaidOr(settings.said.rendererSample, 64, 1); }

inline void ResetRenderer() {
  settings.said.keptDistance = settings.said.distance.value_or(settings.said.keptDistance);
  settings.said.keptResolution = settings.said.resolution.value_or(settings.said.keptResolution);
  settings.said.distance.reset();
  settings.said.resolution.reset();
  settings.said.photonDepth = 8;
  settings.said.rayDepth = 8;
  settings.said.rendererSample = kUnsaid;
  settings.said.clampIndirect = {kFarthest, kFarthest, kFarthest};
  settings.derived.finalGathering = settings.derived.tracksMedia = false;
  settings.derived.openIor = 1;
  settings.frame.rendererRays = settings.frame.shadowRays = 0;
  settings.frame.renderMicroseconds = 0;
}

inline void ResetPhotonRadius() {
  settings.said.photonRadius.reset();
  settings.derived.photonRadius = settings.derived.photonRadiusSquared = 1;
}

}  // namespace zp
