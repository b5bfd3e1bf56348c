// job/merge.h: checkpoints of shares of one frame, which many processes may have rendered, become one.
// Neither the scene nor its accelerator is asked for: checkpoints know what makes pictures of their sums.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "job/checkpoint.h"

namespace zp {

struct FramePart {
  std::string path;
  Checkpoint head;  // without its sums
};

// Reads what the files are and puts them in the order of their passes, so that no result depends on the order
// of the paths. The sentence that says why they are not shares of one frame, apart from one another; else
// empty.
std::string OpenParts(const std::vector<std::string>& paths, std::vector<FramePart>& parts);
// Passes of the frame that the parts lack: "4:8, 12:16"; empty if they have all.
std::string MissingPasses(const std::vector<FramePart>& parts);
// Passes that they have.
std::string PassesOf(const std::vector<FramePart>& parts);

struct MergedFrame {
  Checkpoint head;
  std::vector<std::vector<double>> sums;  // of each AOV, over all samples
  std::vector<std::uint32_t> samples;     // of each pixel
};

// Adds up the parts, one after the other, in double precision. The sentence that says why not; else empty.
std::string MergeParts(const std::vector<FramePart>& parts, MergedFrame& frame);
// As WriteCheckpoint. The file is a part like others, and a render goes on from it if it holds all passes
// from the first one to some other.
std::string WriteMerge(const std::string& path, const MergedFrame& frame);
// The finished picture of an AOV of head.aovs, with its name.
ImageBuffer MergedPicture(const MergedFrame& frame, std::size_t aov);

}  // namespace zp
