// job/keeper.h: sees to it that little of a frame is lost, and that it ends in time.

#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "integrator/integrator.h"
#include "job/checkpoint.h"

namespace zp {

struct KeepOptions {
  double saveEvery = 0;         // seconds between two saves of all images, and of the checkpoint; 0: none
  std::string checkpoint;       // file; empty: none
  std::optional<double> noise;  // relative error (imaging/frame_noise.h) that ends the frame
  std::optional<double> time;   // seconds that the frame may take, those before a resume included
};

// To be told what frameObserver is told.
class FrameKeeper {
 public:
  // `base`: options, seed, files, and seconds of earlier runs.
  FrameKeeper(KeepOptions options, Checkpoint base);

  void PassDone(const FrameReport& report);
  void RowsDone();
  void Paused() {  // which others than RowsDone may ask for
    if (IsSaveDue()) Save();
  }

  // Saves images and checkpoint as they stand.
  void Save();
  // The checkpoint alone, as behind a stop; what could not be written is told by CheckpointTrouble.
  void SaveCheckpoint();
  // Why the checkpoint on the disk is not the last one asked for; empty if it is.
  const std::string& CheckpointTrouble() const { return trouble_; }
  double Seconds() const;  // that the frame has taken
  // The picture's error when it was measured last; only where the options limit it.
  std::optional<double> Error() const { return error_; }
  // Measures it, where a frame goes on behind `passes`, as PassDone had done. Whether it is small enough.
  bool HasReachedNoise(std::uint32_t passes);
  bool HasTimeLeft(double more = 0) const { return !options_.time || Seconds() + more < *options_.time; }

 private:
  using Clock = std::chrono::steady_clock;
  bool IsSaveDue() const;

  KeepOptions options_;
  Checkpoint base_;
  Clock::time_point start_ = Clock::now(), saved_ = start_, passBegun_ = start_;
  double saveSeconds_ = 0;  // that the last save took
  std::optional<double> error_;
  std::string trouble_;
};

}  // namespace zp
