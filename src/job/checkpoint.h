// job/checkpoint.h: a frame as it stands, in a file from which another process can go on.
//
// The file: a line that names it, the version as four bytes, the lowest first, and a zstd stream with a
// checksum of its own. In the stream: the size of a JSON text as eight bytes, that text, for each row of the
// picture its whole passes and the column where a begun one was cut short (four bytes each), for each tile
// its rests (two bytes each number), and the sums of each AOV as 32-bit floats, row by row from the top. In a
// merge the sums are over whole samples, in 64 bits, and behind them stand the samples of each pixel, four
// bytes each. Mattes come last, one after the other, row by row: how many ids each pixel has, two bytes each,
// then all of these, four bytes for an id and four for the samples that have met it.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "imaging/frame_state.h"
#include "integrator/integrator.h"
#include "job/scene_files.h"

namespace zp {

// What decides about the pixels of a frame, beside the scene's files.
struct FramePlan {
  std::int32_t format = 1;
  std::int32_t camera = 0;  // its number
  std::int32_t width = 0, height = 0;
  std::int32_t left = 0, top = 0, right = 0, bottom = 0;  // of the region
  std::int32_t sample = 0;                                // passes
  std::int32_t begin = 0, end = 0;                        // of the passes that are rendered; end 0: all
  std::int32_t photons = 0;                               // which set of them is cast
  std::int32_t halves = 0;                                // 1 where half sets are kept apart
  std::int32_t transparentSky = 0;                        // 1 where the sky is left out
  std::uint64_t seed = 0;
  friend bool operator==(const FramePlan&, const FramePlan&) = default;
};

struct Checkpoint {
  std::string program = ZP_VERSION;  // the version that has rendered it
  std::string options;               // a JSON object of the program's own
  FramePlan plan;
  std::uint32_t passes = 0;  // whole ones, from plan.begin on
  double seconds = 0;        // spent so far, by all runs
  std::vector<SceneFile> files;
  FrameState state;
  // In the order of VisitFrameAovs. What makes files of them, and the sums once they are read.
  std::vector<Aov> aovs;
  Vec3 exposure = {1, 1, 1};  // of the camera
  bool linear = false;        // as settings.said.linearFiles

  bool merged = false;               // of parts: it has samples in place of `state`
  std::vector<PassRange> whole;      // passes that all pixels have, in order, with gaps between them
  std::vector<std::uint32_t> begun;  // those that some pixels have
  double drawn = 0;                  // passes that have added to pictures that photons draw
};

// The frame at hand: plan, state and AOVs without their pixels; no options, files and times.
Checkpoint DescribeFrame(std::uint64_t seed);
// Writes `checkpoint` with the sums of the frame at hand, between passes or while they are paused. Whole or
// not at all: on failure the file that was there stays. The rest of a sentence that says why, else empty.
std::string WriteCheckpoint(const std::string& path, const Checkpoint& checkpoint);
// Reads one that a render can go on from. The rest of a sentence behind the name, "is damaged", on failure.
std::string ReadCheckpoint(const std::string& path, Checkpoint& checkpoint);
// Why the frame at hand, initialised and not begun, cannot go on from the checkpoint; else empty. Then its
// AOVs and frameState are those of the checkpoint, which has no pixels any more.
std::string RestoreFrame(Checkpoint& checkpoint, const FramePlan& plan, const std::vector<SceneFile>& files);

}  // namespace zp
