// integrator/catcher_response.h: how a shadow catcher answers light, as if nothing stood in its way; private
// to this folder. What does stand there is asked of a few samples out of many.

#pragma once

#include <algorithm>
#include <array>

#include "integrator/surface_response.h"

namespace zp {

// Takes light as a white surface does.
struct CatcherReceiver {
  const RayRecord& ray;
  const ShadingPoint& point;
};

inline SurfaceResponse Respond(const CatcherReceiver& receiver, Vec3 direction, float offset, GlossyScale) {
  SurfaceResponse response;
  if (Dot(direction, receiver.point.geometricNormal) > 0)
    response[Lobe::kLambertian] = SoftCosine(Dot(direction, receiver.point.normal), offset) / kPi;
  return response;
}

inline void Reflect(const CatcherReceiver&, const SurfaceResponse& response, Vec3 light, LobeRadiance& sum) {
  sum[Lobe::kLambertian] += response[Lobe::kLambertian] * light;
}

// No ray of a lobe brings any of the light.
inline SurfaceResponse Weighted(const CatcherReceiver&, const SurfaceResponse& response, const LightSample&,
                                RayBudgets) {
  return response;
}

// Whose shadow is seen is found out later.
inline Vec3 Visibility(const CatcherReceiver&, Vec3, float) { return kWhite; }

// Light that the surface would get, and what of it gets there: means of the colours.
struct Shade {
  float whole = 0, left = 0;
};

// Samples of one light. Their mean tells the whole, so that a share of it has little error, and none where
// nothing is in the way; shadow rays go to some, drawn by what they bring (Talbot, Cline and Egbert,
// "Importance Resampling for Global Illumination", 2005).
class ShadeSamples {
 public:
  static constexpr int kMost = 16;

  void Add(Vec3 light, Vec3 direction, float distance) {
    const float level = MaxOf(Mean(light), 0.0f);
    sum_ += level;
    samples_[static_cast<std::size_t>(count_++)] = {light, direction, distance, level};
  }
  // Adds the light to `shade`. visible(direction, distance) tells what is left of it.
  //   asked   shadow rays
  //   number  in [0, 1), of the draw
  template <class Visible>
  void AddTo(Shade& shade, int asked, float number, const Visible& visible) const {
    if (!(sum_ > 0) || !(sum_ < kFarthest)) return;
    const float whole = sum_ / static_cast<float>(count_), share = whole / static_cast<float>(asked);
    shade.whole += whole;
    float before = 0;
    const Sample* sample = samples_.data();
    const Sample* const end = sample + count_;
    for (int i = 0; i < asked; ++i) {
      const float place = (static_cast<float>(i) + number) / static_cast<float>(asked) * sum_;
      for (; sample + 1 < end && before + sample->level <= place; ++sample) before += sample->level;
      if (!(sample->level > 0)) {  // rounded up to an end without light: as good as the whole
        shade.left += share;
        continue;
      }
      const Vec3 left = sample->light * visible(sample->direction, sample->distance);
      shade.left += share * (Mean(left) / sample->level);
    }
  }

 private:
  struct Sample {
    Vec3 light, direction;
    float distance, level;
  };
  std::array<Sample, kMost> samples_;
  int count_ = 0;
  float sum_ = 0;
};

}  // namespace zp
