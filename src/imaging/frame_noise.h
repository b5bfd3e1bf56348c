// imaging/frame_noise.h: how far a frame is from the picture of endless passes, told by the two half sets of
// its passes, and which of its tiles need no more of them. Where settings.said.halfSets keeps them apart.
//
// The error of a pixel is that of the mean of both halves, by what the picture shows around it (the 3 x 3
// pixels: a value of its own would hide in its own noise) and a hundredth of the picture's mean; that of a
// tile and of the picture is the root of the mean square.
//
// Which samples a half set takes must not depend on what they show, or dark ones would stop a tile where
// bright accidents would have gone on, and the picture would be too dark. So the noise of each half set says
// how many samples the other one takes (the idea of two buffers: Rousselle, Knaus and Zwicker, "Adaptive
// Rendering with Non-Local Means Filtering", 2012), and both count alike in the picture (FinishedPicture).
// What one half set knows of itself is the variance of its samples, which points that are not independent
// stay below: the ratio comes from the difference of the two in the tiles around, as their median, so that no
// tile's accidents have a say in it.

#pragma once

#include <cstdint>
#include <vector>

#include "imaging/frame_state.h"

namespace zp {

struct TileNoise {
  double squares = 0;  // mean square of the error, by the difference of the half sets
  // Mean squares of one sample's error by the samples of each half set, and of the error that they promise
  // for the mean of both.
  double ofSample[2] = {}, promised = 0;
  std::int32_t pixels = 0;  // that have samples of both half sets
};
struct FrameNoise {
  std::vector<TileNoise> tiles;  // row by row
  double error = 0;              // of the picture
};
// Of the beauty image, between two passes.
FrameNoise MeasureNoise(const Aov& beauty, const FrameState& state);

// The passes behind which noise is measured: from 16 on even ones, ever fewer.
bool IsMeasured(std::uint32_t passes);

// Lets the tiles of format 2 rest that have samples enough for `error`. What rests does so whatever the other
// half set finds later, since how long that goes on is the resting one's say; it wakes where less error is
// asked for than before, as in a frame that is resumed, and where all rest and the picture still has too much
// of it.
//   passes  that the frame has gone through
void RestTiles(const FrameNoise& noise, double error, std::uint32_t passes, FrameState& state);

}  // namespace zp
