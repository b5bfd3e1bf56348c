// imaging/frame_state.h: how much of a frame is rendered. AOVs hold sums; with the counts kept here they
// become pictures, at any moment between two passes and behind one that was cut short.

#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "imaging/imaging.h"

namespace zp {

// Samples of the pixels of one row. A row that was cut short has one more left of a column.
struct RowSamples {
  std::uint32_t whole = 0;
  std::int32_t cut = 0;  // first column that lacks it
};

// Of the camera that is rendered. Rows are written by the threads that render them, one thread a row.
struct FrameState {
  std::uint32_t planned = 1;         // samples of a pixel, of each of which a sum takes such a share
  std::int32_t left = 0, right = 0;  // columns that are rendered: [left, right)
  std::vector<RowSamples> rows;      // of the picture's height; empty before the first sample
  bool interrupted = false;          // a pass was cut short
  // The pass that some pixels have already, where a frame goes on that another process has begun: it leaves
  // those out.
  std::optional<std::uint32_t> resumed = std::nullopt;
};
extern FrameState frameState;

// How many samples a pixel has: 0 outside of what is rendered.
std::uint32_t SamplesOf(const FrameState& state, std::int32_t x, std::int32_t y);
// Of all pixels.
std::uint64_t CountSamples(const FrameState& state);

// What each sum of an AOV, by the samples of its pixel, has to be multiplied by to be one over whole samples,
// which parts of a frame can add up. Not for pictures that photons draw.
double SampleWeight(const Aov& aov, const FrameState& state, std::uint32_t samples);
// Photons draw it before the first pass, whatever the number of samples.
bool IsDrawnByPhotons(const Aov& aov);

// The AOV as it is shown and written: shares of samples that were never taken are made up for, so that each
// pixel has the brightness of the finished frame. Means, light paths (which the photons have drawn before the
// first pass) and pixels with all of their samples stay as they are, to the bit.
ImageBuffer FinishedPicture(const Aov& aov, const FrameState& state);
// Whether the AOV's own buffer is that picture already.
bool IsFinished(const Aov& aov, const FrameState& state);

}  // namespace zp
