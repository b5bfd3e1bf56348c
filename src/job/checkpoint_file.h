// job/checkpoint_file.h: checkpoints on the disk, piece by piece; private to this folder.

#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "job/checkpoint.h"
#include "job/packing.h"

namespace zp {

class CheckpointReader {
 public:
  // Reads all that stands before the sums. The rest of a sentence behind the name on failure.
  std::string Open(const std::string& path, Checkpoint& checkpoint);
  // How many numbers an AOV has.
  std::size_t Count(std::size_t aov) const { return counts_[aov]; }
  // What follows, of the type that the file has there. False where it is damaged.
  template <class T>
  bool Take(std::vector<T>& values, std::size_t count) {
    return unpacker_->Take(values, count);
  }
  // The mattes of `aovs`, which come behind all numbers; adds them to those of `into`. False likewise.
  bool TakeMattes(const Checkpoint& head, std::vector<Aov>& into);
  bool EndsHere() { return unpacker_->EndsHere(); }

 private:
  bool TakeHead(Checkpoint& checkpoint);

  std::unique_ptr<std::FILE, decltype(&std::fclose)> file_ = {nullptr, std::fclose};
  std::optional<Unpacker> unpacker_;
  std::vector<std::size_t> counts_;
};

// Writes a merge, whole or not at all.
//   sums     of each AOV over all samples
//   samples  of each pixel
std::string WriteMergedCheckpoint(const std::string& path, const Checkpoint& checkpoint,
                                  const std::vector<std::vector<double>>& sums,
                                  const std::vector<std::uint32_t>& samples);

// A number of a plan, and what the program's user calls it.
struct NamedNumber {
  const char* name;
  std::int32_t FramePlan::*field;
  const char* option;
};
inline constexpr NamedNumber kPlanNumbers[] = {
    {"format", &FramePlan::format, "--format"},
    {"camera", &FramePlan::camera, "--camera"},
    {"width", &FramePlan::width, "--resolution"},
    {"height", &FramePlan::height, "--resolution"},
    {"left", &FramePlan::left, "--region"},
    {"top", &FramePlan::top, "--region"},
    {"right", &FramePlan::right, "--region"},
    {"bottom", &FramePlan::bottom, "--region"},
    {"sample", &FramePlan::sample, "--sample"},
    {"begin", &FramePlan::begin, "--passes"},
    {"end", &FramePlan::end, "--passes"},
    {"photons", &FramePlan::photons, "--vary-photons"},
    {"halves", &FramePlan::halves, "--noise"},
    {"transparent_sky", &FramePlan::transparentSky, "--transparent-sky"},
};

}  // namespace zp
