#include "imaging/frame_state.h"

#include <algorithm>

#include "core/index.h"
#include "core/sample_points.h"
#include "core/settings.h"

namespace zp {

FrameState frameState;

namespace {

bool HoldsShares(const Aov& aov) { return !aov.mean && !aov.nearest && !IsDrawnByPhotons(aov); }

bool LacksSamples(const FrameState& state) {
  return std::any_of(state.rows.begin(), state.rows.end(), [&](const RowSamples& row) {
    return row.cut > state.left || (row.whole != 0 && row.whole != state.planned);
  });
}

// Sums of even and of odd passes, neither of which is a picture of the whole.
bool IsOfHalves(const Aov& aov) { return !aov.odd.empty() && settings.format >= 2; }

// That a pixel has gone through, with samples or without.
std::uint32_t PassesOf(const FrameState& state, std::int32_t x, std::int32_t y) {
  if (!IsIndex(state.rows, y) || x < state.left || x >= state.right) return 0;
  const RowSamples& row = At(state.rows, y);
  return row.whole + (x < row.cut ? 1 : 0);
}

const TileRest* RestOf(const FrameState& state, std::int32_t x, std::int32_t y, std::uint32_t half) {
  const std::int32_t tile = y / kTile * state.tilesAcross + x / kTile;
  return IsIndex(state.tiles, tile) ? &At(state.tiles, tile)[half] : nullptr;
}

std::size_t PixelOf(const ImageBuffer& image, std::int32_t x, std::int32_t y) {
  return static_cast<std::size_t>(image.width) * static_cast<std::size_t>(y) + static_cast<std::size_t>(x);
}

Vec3 Divided(const Aov& aov, Vec3 sum, std::uint32_t planned, std::uint32_t samples) {
  if (!HoldsShares(aov) || samples == 0 || samples == planned) return sum;
  return static_cast<float>(planned) / static_cast<float>(samples) * sum;
}

Vec3 FinishedPixel(const Aov& aov, const FrameState& state, std::int32_t x, std::int32_t y) {
  const std::size_t pixel = PixelOf(aov.image, x, y);
  if (!IsOfHalves(aov))
    return Divided(aov, ReadPixel(aov.image, pixel), state.planned, SamplesOf(state, x, y));
  const std::uint32_t even = SamplesOf(state, x, y, 0), odd = SamplesOf(state, x, y, 1);
  const Vec3 first = Divided(aov, ReadPixel(aov.image, pixel), state.planned, even);
  if (odd == 0) return first;
  return 0.5f * (first + Divided(aov, ReadPixel(aov.odd[0].image, pixel), state.planned, odd));
}

}  // namespace

bool IsDrawnByPhotons(const Aov& aov) { return aov.channel == kChannelLightPath; }

double SampleWeight(const Aov& aov, const FrameState& state, std::uint32_t samples) {
  if (aov.nearest) return 1;
  return HoldsShares(aov) ? state.planned : samples;
}

std::uint32_t SamplesOf(const FrameState& state, std::int32_t x, std::int32_t y, std::uint32_t half) {
  const std::uint32_t passes = (PassesOf(state, x, y) + 1 - half) / 2;
  const TileRest* rest = RestOf(state, x, y, half);
  return rest == nullptr ? passes : std::min(passes, std::uint32_t{rest->from}) - rest->missed;
}

std::uint32_t SamplesOf(const FrameState& state, std::int32_t x, std::int32_t y) {
  if (state.tiles.empty()) return PassesOf(state, x, y);
  return SamplesOf(state, x, y, 0) + SamplesOf(state, x, y, 1);
}

std::uint64_t CountSamples(const FrameState& state) {
  std::uint64_t count = 0;
  for (std::size_t y = 0; y < state.rows.size(); ++y)
    for (std::int32_t x = state.left; x < state.right; ++x)
      count += SamplesOf(state, x, static_cast<std::int32_t>(y));
  return count;
}

bool HasBegunPass(const FrameState& state, std::uint32_t passes) {
  return std::any_of(state.rows.begin(), state.rows.end(),
                     [&](const RowSamples& row) { return row.cut > state.left || row.whole > passes; });
}

bool Rests(const FrameState& state, std::int32_t x, std::int32_t y, std::uint32_t pass) {
  const TileRest* rest = RestOf(state, x, y, HalfOfPass(pass));
  return rest != nullptr && pass / 2 >= rest->from;
}

bool IsFinished(const Aov& aov, const FrameState& state) {
  if (aov.channel == kChannelSamples || IsOfHalves(aov)) return false;
  return !HoldsShares(aov) || !LacksSamples(state);
}

ImageBuffer FinishedPicture(const Aov& aov, const FrameState& state) {
  ImageBuffer picture = aov.image;
  if (IsFinished(aov, state)) return picture;
  for (std::int32_t y = 0; y < picture.height; ++y)
    for (std::int32_t x = 0; x < picture.width; ++x) {
      const Vec3 value = aov.channel == kChannelSamples ? static_cast<float>(SamplesOf(state, x, y)) * kWhite
                                                        : FinishedPixel(aov, state, x, y);
      WritePixel(picture, value, PixelOf(picture, x, y));
    }
  return picture;
}

Vec3 HalfPixel(const Aov& beauty, const FrameState& state, std::int32_t x, std::int32_t y,
               std::uint32_t half) {
  const std::size_t pixel = PixelOf(beauty.image, x, y);
  if (half == 1) return ReadPixel(beauty.odd[0].image, pixel);
  const Vec3 value = ReadPixel(beauty.image, pixel);
  const std::uint32_t even = SamplesOf(state, x, y, 0), odd = SamplesOf(state, x, y, 1);
  if (IsOfHalves(beauty) || even == 0) return value;
  const float ratio = static_cast<float>(odd) / static_cast<float>(even);
  return value + ratio * (value - ReadPixel(beauty.odd[0].image, pixel));
}

}  // namespace zp
