// job/checkpoint.h: a frame as it stands, in a file from which another process can go on.
//
// The file: a line that names it, the version as four bytes, the lowest first, and a zstd stream with a
// checksum of its own. In the stream: the size of a JSON text as eight bytes, that text, for each row of the
// picture its whole passes and the column where a begun one was cut short (four bytes each), for each tile
// its rests (two bytes each number), and the sums of each AOV as 32-bit floats, row by row from the top.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "imaging/frame_state.h"
#include "job/scene_files.h"

namespace zp {

// What decides about the pixels of a frame, beside the scene's files.
struct FramePlan {
  std::int32_t format = 1;
  std::int32_t camera = 0;  // its number
  std::int32_t width = 0, height = 0;
  std::int32_t left = 0, top = 0, right = 0, bottom = 0;  // of the region
  std::int32_t sample = 0;                                // passes
  std::int32_t halves = 0;                                // 1 where half sets are kept apart
  std::uint64_t seed = 0;
};

struct Checkpoint {
  std::string options;  // a JSON object of the program's own
  FramePlan plan;
  std::uint32_t passes = 0;  // whole ones
  double seconds = 0;        // spent so far, by all runs
  std::vector<SceneFile> files;
  FrameState state;
  struct Sums {
    std::uint32_t channel = 0;
    std::vector<float> pixels;
  };
  std::vector<Sums> aovs;  // in the order of VisitFrameAovs
};

// The frame at hand: plan and state, without a copy of the pixels, options, files and times.
Checkpoint DescribeFrame(std::uint64_t seed);
// Writes `checkpoint` with the pixels of the frame at hand, between passes or while they are paused. Whole or
// not at all: on failure the file that was there stays. The rest of a sentence that says why, else empty.
std::string WriteCheckpoint(const std::string& path, const Checkpoint& checkpoint);
// Reads all of it. The rest of a sentence behind the name, "is damaged", on failure.
std::string ReadCheckpoint(const std::string& path, Checkpoint& checkpoint);
// Why the frame at hand, initialised and not begun, cannot go on from the checkpoint; else empty. Then its
// AOVs and frameState are those of the checkpoint, which has no pixels any more.
std::string RestoreFrame(Checkpoint& checkpoint, const FramePlan& plan, const std::vector<SceneFile>& files);

}  // namespace zp
