// job/run_progress.h: how far a run has come, and how long it may still take.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "core/progress.h"
#include "integrator/integrator.h"

namespace zp {

struct RunProgress {
  Phase phase = Phase::kReading;
  std::uint64_t done = 0, total = 0;  // files, objects, photons, passes, images
  double begun = 0;                   // share of the pass that runs
  double raysPerSecond = 0;           // of the pass that runs, or of the last
  double elapsed = 0;                 // seconds since the run began
  std::optional<double> remaining;    // seconds of the phase, where they can be told
  std::uint64_t memory = 0;           // bytes that are resident
  std::optional<double> error;        // relative, of the picture, where it is estimated
};

// What a frame has taken and reached, and where it is to end.
struct FrameStanding {
  double seconds = 0;
  std::optional<double> error;        // where it is estimated
  std::optional<double> time, noise;  // limits of the two
};

// Makes it of what is told. Not for two threads at once.
class ProgressMeter {
 public:
  const RunProgress& Take(const WorkDone& work);
  const RunProgress& Take(const FrameReport& report, const FrameStanding& standing);
  const RunProgress& Last() const { return progress_; }

 private:
  using Clock = std::chrono::steady_clock;
  void Update(Phase phase);

  RunProgress progress_;
  Clock::time_point start_ = Clock::now(), phaseStart_ = start_;
  double firstDone_ = -1;  // passes that there were when this run's first began; below 0 before
  Clock::time_point passesStart_;
};

// One line of JSON, without its end.
std::string ProgressJson(const RunProgress& progress);

}  // namespace zp
