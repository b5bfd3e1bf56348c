#include "imaging/frame_noise.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "core/index.h"
#include "core/settings.h"
#include "core/threads.h"

namespace zp {
namespace {

constexpr std::uint32_t kFirstPasses = 16;
constexpr double kFloor = 0.01;  // of the picture's mean
// The share of its noisiest neighbour's noise that a tile is believed to have at least: what few samples have
// missed, as a lamp that is seldom found, those around have met.
constexpr double kCaution = 0.25;
constexpr std::int32_t kRatioTiles = 2;  // tiles on each side whose ratios count
constexpr double kLeastRatio = 1.0 / 64, kMostRatio = 1;

double Square(double x) { return x * x; }

// What is rendered: columns and rows.
struct Bounds {
  std::int32_t left, top, right, bottom;
};
Bounds RenderedBounds(const FrameState& state) {
  const auto has = [](const RowSamples& row) { return row.whole > 0; };
  const auto first = std::find_if(state.rows.begin(), state.rows.end(), has);
  const auto last = std::find_if(state.rows.rbegin(), state.rows.rend(), has);
  return {state.left, static_cast<std::int32_t>(first - state.rows.begin()), state.right,
          static_cast<std::int32_t>(state.rows.rend() - last)};
}

class Measure {
 public:
  Measure(const Aov& beauty, const FrameState& state)
      : beauty_(beauty),
        state_(state),
        bounds_(RenderedBounds(state)),
        picture_(FinishedPicture(beauty, state)) {
    double sum = 0;
    for (std::int32_t y = bounds_.top; y < bounds_.bottom; ++y)
      for (std::int32_t x = bounds_.left; x < bounds_.right; ++x) sum += static_cast<double>(Mean(At(x, y)));
    const double pixels =
        static_cast<double>(bounds_.right - bounds_.left) * std::max(bounds_.bottom - bounds_.top, 0);
    floor_ = pixels > 0 ? kFloor * sum / pixels : 0;
  }

  void Add(std::int32_t x, std::int32_t y, TileNoise& tile) const {
    const std::uint32_t even = SamplesOf(state_, x, y, 0), odd = SamplesOf(state_, x, y, 1);
    if (even < 2 || odd < 2) return;
    ++tile.pixels;
    const Vec3 around = Around(x, y);
    const Vec3 half[2] = {HalfPixel(beauty_, state_, x, y, 0), HalfPixel(beauty_, state_, x, y, 1)};
    for (int c = 0; c < 3; ++c) {
      const double scale = std::max(static_cast<double>(around[c]), 0.0) + floor_;
      if (!(scale > 0)) continue;  // a black picture has no noise
      const double weight = 1 / (3 * Square(scale));
      tile.squares +=
          weight * Square((static_cast<double>(half[0][c]) - static_cast<double>(half[1][c])) / 2);
      if (beauty_.squares.empty()) continue;
      double promised = 0;
      for (std::uint32_t h = 0; h < 2; ++h) {
        const double samples = h == 0 ? even : odd, mean = static_cast<double>(half[h][c]);
        const auto squares = static_cast<double>(
            ReadPixel(beauty_.squares[h].image, static_cast<std::size_t>(Index(x, y)))[c]);
        const double variance = std::max(squares - mean * mean, 0.0) * samples / (samples - 1);
        tile.ofSample[h] += weight * variance;
        promised += variance / samples / 4;
      }
      tile.promised += weight * promised;
    }
  }
  const Bounds& bounds() const { return bounds_; }

 private:
  std::size_t Index(std::int32_t x, std::int32_t y) const {
    return static_cast<std::size_t>(picture_.width) * static_cast<std::size_t>(y) +
           static_cast<std::size_t>(x);
  }
  Vec3 At(std::int32_t x, std::int32_t y) const { return ReadPixel(picture_, Index(x, y)); }
  Vec3 Around(std::int32_t x, std::int32_t y) const {
    Vec3 sum;
    float count = 0;
    for (std::int32_t row = std::max(y - 1, bounds_.top); row <= std::min(y + 1, bounds_.bottom - 1); ++row)
      for (std::int32_t column = std::max(x - 1, bounds_.left); column <= std::min(x + 1, bounds_.right - 1);
           ++column, ++count)
        sum += At(column, row);
    return sum / count;
  }

  const Aov& beauty_;
  const FrameState& state_;
  Bounds bounds_;
  ImageBuffer picture_;
  double floor_ = 0;
};

// The tiles in a square around one, itself included.
template <class Visit>
void VisitAround(std::int32_t tile, std::int32_t across, std::int32_t count, std::int32_t reach,
                 const Visit& visit) {
  const std::int32_t column = tile % across, row = tile / across;
  for (std::int32_t y = std::max(row - reach, 0); y <= std::min(row + reach, count / across - 1); ++y)
    for (std::int32_t x = std::max(column - reach, 0); x <= std::min(column + reach, across - 1); ++x)
      visit(y * across + x);
}

// By what mean squares are below those that independent samples promise, around a tile.
double RatioAround(const FrameNoise& noise, std::int32_t tile, std::int32_t across) {
  std::vector<double> ratios;
  VisitAround(tile, across, static_cast<std::int32_t>(noise.tiles.size()), kRatioTiles, [&](std::int32_t i) {
    const TileNoise& other = At(noise.tiles, i);
    if (other.promised > 0) ratios.push_back(other.squares / other.promised);
  });
  if (ratios.empty()) return kMostRatio;
  const auto middle = ratios.begin() + static_cast<std::ptrdiff_t>(ratios.size() / 2);
  std::nth_element(ratios.begin(), middle, ratios.end());
  return std::clamp(*middle, kLeastRatio, kMostRatio);
}

// Of one sample of a tile, as a half set tells it.
double CautiousNoise(const FrameNoise& noise, std::int32_t tile, std::int32_t across, std::uint32_t half) {
  double most = 0;
  VisitAround(tile, across, static_cast<std::int32_t>(noise.tiles.size()), 1, [&](std::int32_t i) {
    most = std::max(most, (i == tile ? 1 : kCaution) * At(noise.tiles, i).ofSample[half]);
  });
  return most;
}

void Rest(TileRest& rest, bool rests, std::uint32_t passes) {
  if (rests == (rest.from != TileRest::kAwake)) return;
  if (!rests) rest.missed = static_cast<std::uint16_t>(rest.missed + (passes - rest.from));
  rest.from = rests ? static_cast<std::uint16_t>(passes) : TileRest::kAwake;
}

// Lets tiles rest where the samples of a half set bring the variance of its mean down to `target`. How many
// half sets of tiles are left awake.
std::int32_t RestEach(const FrameNoise& noise, double target, std::uint32_t passes, FrameState& state) {
  const bool mayWake = target < state.target;
  state.target = target;
  std::int32_t awake = 0;
  for (std::int32_t i = 0; i < static_cast<std::int32_t>(noise.tiles.size()); ++i) {
    if (At(noise.tiles, i).pixels == 0) continue;
    const double ratio = RatioAround(noise, i, state.tilesAcross);
    for (std::uint32_t half = 0; half < 2; ++half) {
      TileRest& rest = At(state.tiles, i)[half];
      const std::uint32_t gone = (passes + 1 - half) / 2;
      const double samples = std::min(gone, std::uint32_t{rest.from}) - rest.missed;
      const double variance = ratio * CautiousNoise(noise, i, state.tilesAcross, 1 - half);
      const bool stays = rest.from != TileRest::kAwake && !mayWake;
      const bool rests = stays || (target > 0 && variance <= samples * target);
      Rest(rest, rests, gone);
      awake += rests ? 0 : 1;
    }
  }
  return awake;
}

}  // namespace

FrameNoise MeasureNoise(const Aov& beauty, const FrameState& state) {
  FrameNoise noise;
  const std::int32_t across = TilesAlong(beauty.image.width);
  const std::int32_t count = across * TilesAlong(beauty.image.height);
  noise.tiles.resize(static_cast<std::size_t>(count));
  if (beauty.odd.empty() || state.rows.empty() || state.tilesAcross != across) return noise;
  const Measure measure(beauty, state);
  const Bounds& bounds = measure.bounds();
#pragma omp parallel for schedule(dynamic) if (IsWorthThreads(state.rows.size(), 100'000))
  for (std::int32_t i = 0; i < count; ++i) {
    TileNoise& tile = At(noise.tiles, i);
    const std::int32_t left = i % across * kTile, top = i / across * kTile;
    for (std::int32_t y = std::max(top, bounds.top); y < std::min(top + kTile, bounds.bottom); ++y)
      for (std::int32_t x = std::max(left, bounds.left); x < std::min(left + kTile, bounds.right); ++x)
        measure.Add(x, y, tile);
  }
  double squares = 0, pixels = 0;
  for (TileNoise& tile : noise.tiles) {
    squares += tile.squares;
    pixels += tile.pixels;
    if (tile.pixels == 0) continue;
    for (double* sum : {&tile.squares, &tile.promised, &tile.ofSample[0], &tile.ofSample[1]})
      *sum /= tile.pixels;
  }
  noise.error = pixels > 0 ? std::sqrt(squares / pixels) : 0;
  return noise;
}

bool IsMeasured(std::uint32_t passes) {
  return passes >= kFirstPasses && passes % std::max(std::bit_floor(passes) / 8, 4U) == 0;
}

void RestTiles(const FrameNoise& noise, double error, std::uint32_t passes, FrameState& state) {
  constexpr double kStep = 1.1;
  state.tiles.resize(noise.tiles.size());
  // The mean of both half sets has half the variance of one.
  const auto target = [&] { return 2 * Square(error) / state.strictness; };
  while (RestEach(noise, target(), passes, state) == 0 && error > 0 && noise.error > error)
    state.strictness *= std::max(kStep, Square(noise.error / error));
}

}  // namespace zp
