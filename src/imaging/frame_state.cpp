#include "imaging/frame_state.h"

#include <algorithm>

#include "core/index.h"

namespace zp {

FrameState frameState;

namespace {

bool HoldsShares(const Aov& aov) { return !aov.mean && !IsDrawnByPhotons(aov); }

bool LacksSamples(const FrameState& state) {
  return std::any_of(state.rows.begin(), state.rows.end(), [&](const RowSamples& row) {
    return row.cut > state.left || (row.whole != 0 && row.whole != state.planned);
  });
}

}  // namespace

bool IsDrawnByPhotons(const Aov& aov) { return aov.channel == kChannelLightPath; }

double SampleWeight(const Aov& aov, const FrameState& state, std::uint32_t samples) {
  return HoldsShares(aov) ? state.planned : samples;
}

std::uint32_t SamplesOf(const FrameState& state, std::int32_t x, std::int32_t y) {
  if (!IsIndex(state.rows, y) || x < state.left || x >= state.right) return 0;
  const RowSamples& row = At(state.rows, y);
  return row.whole + (x < row.cut ? 1 : 0);
}

std::uint64_t CountSamples(const FrameState& state) {
  std::uint64_t count = 0;
  for (const RowSamples& row : state.rows)
    count += std::uint64_t{row.whole} * static_cast<std::uint64_t>(state.right - state.left) +
             static_cast<std::uint64_t>(std::max(row.cut - state.left, 0));
  return count;
}

bool IsFinished(const Aov& aov, const FrameState& state) { return !HoldsShares(aov) || !LacksSamples(state); }

ImageBuffer FinishedPicture(const Aov& aov, const FrameState& state) {
  ImageBuffer picture = aov.image;
  if (IsFinished(aov, state)) return picture;
  const auto width = static_cast<std::size_t>(std::max(picture.width, 0));
  for (std::int32_t y = 0; y < picture.height; ++y)
    for (std::int32_t x = 0; x < picture.width; ++x) {
      const std::uint32_t samples = SamplesOf(state, x, y);
      if (samples == 0 || samples == state.planned) continue;
      const std::size_t pixel = static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x);
      const float scale = static_cast<float>(state.planned) / static_cast<float>(samples);
      WritePixel(picture, scale * ReadPixel(picture, pixel), pixel);
    }
  return picture;
}

}  // namespace zp
