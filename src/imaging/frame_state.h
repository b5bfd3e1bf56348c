// imaging/frame_state.h: how much of a frame is rendered. AOVs hold sums; with the counts kept here they
// become pictures, at any moment between two passes and behind one that was cut short.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "imaging/imaging.h"

namespace zp {

// Passes that the pixels of one row have gone through. A row that was cut short has one more left of a
// column.
struct RowSamples {
  std::uint32_t whole = 0;
  std::int32_t cut = 0;  // first column that lacks it
};

// Passes of one half set that a tile has gone through without samples. They count from 0 in each half set.
struct TileRest {
  static constexpr std::uint16_t kAwake = 65535;
  std::uint16_t from = kAwake;  // the pass that it rests from
  std::uint16_t missed = 0;     // earlier ones
};
using TileRests = std::array<TileRest, 2>;
inline constexpr std::int32_t kTile = 16;  // edge of a tile, from the picture's left top corner on
inline std::int32_t TilesAlong(std::int32_t pixels) { return (pixels > 0 ? pixels + kTile - 1 : 0) / kTile; }

// Of the camera that is rendered. Rows are written by the threads that render them, one thread a row; tiles
// between two passes.
struct FrameState {
  // Samples of a pixel that a sum takes such a share of: in format 2 sums are of whole samples.
  std::uint32_t planned = 1;
  std::int32_t left = 0, right = 0;  // columns that are rendered: [left, right)
  std::vector<RowSamples> rows;      // of the picture's height; empty before the first sample
  std::int32_t tilesAcross = 0;
  std::vector<TileRests> tiles = {};  // row by row; empty where none has ever rested
  double strictness = 1;              // factor of the samples that tiles are said to need: see RestTiles
  double target = 0;                  // what they have last been asked for; 0: never
  bool interrupted = false;           // a pass was cut short
  // The pass that some pixels have already, where a frame goes on that another process has begun: it leaves
  // those out.
  std::optional<std::uint32_t> resumed = std::nullopt;
};
extern FrameState frameState;

// How many samples a pixel has, of all passes or of a half set: 0 outside of what is rendered.
std::uint32_t SamplesOf(const FrameState& state, std::int32_t x, std::int32_t y);
std::uint32_t SamplesOf(const FrameState& state, std::int32_t x, std::int32_t y, std::uint32_t half);
// Of all pixels.
std::uint64_t CountSamples(const FrameState& state);
// Whether some pixels have gone through one more pass than others.
bool HasBegunPass(const FrameState& state, std::uint32_t passes);
// Whether a pixel's tile leaves a pass out.
bool Rests(const FrameState& state, std::int32_t x, std::int32_t y, std::uint32_t pass);

// What each sum of an AOV, by the samples of its pixel, has to be multiplied by to be one over whole samples,
// which parts of a frame can add up. Not for pictures that photons draw.
double SampleWeight(const Aov& aov, const FrameState& state, std::uint32_t samples);
// Photons draw it before the first pass, whatever the number of samples.
bool IsDrawnByPhotons(const Aov& aov);

// The AOV as it is shown and written: sums are divided so that each pixel has the brightness of the finished
// frame, by the samples that it has, or by making up for shares that were never taken. Means, light paths
// (which the photons have drawn before the first pass) and pixels with all of their shares stay as they are,
// to the bit. Of half sets that are kept apart it is the mean of both, whatever the samples of each: were
// they weighed by their numbers, which go by what the other half has found, bright accidents would count
// less.
ImageBuffer FinishedPicture(const Aov& aov, const FrameState& state);
// Whether the AOV's own buffer is that picture already.
bool IsFinished(const Aov& aov, const FrameState& state);
// One pixel of that picture by a half set alone, of the beauty image where they are kept apart; black without
// samples.
Vec3 HalfPixel(const Aov& beauty, const FrameState& state, std::int32_t x, std::int32_t y,
               std::uint32_t half);

}  // namespace zp
