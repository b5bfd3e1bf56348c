// core/progress.h: how far the work between a scene's text and its pictures has come. Whoever does the work
// tells how much there is and what of it is done; one observer hears of both.

#pragma once

#include <cstdint>
#include <string_view>

namespace zp {

enum class Phase { kReading, kBuilding, kCasting, kPasses, kWriting };
inline constexpr std::string_view kPhaseWords[] = {"reading", "building", "casting", "passes", "writing"};

struct WorkDone {
  Phase phase;
  std::uint64_t done = 0, total = 0;  // files to read or write, objects to build, photons to cast
};

// From now on the work is this.
void BeginWork(Phase phase, std::uint64_t units);
// Adds to the work of the phase; begins it behind another one.
void PlanWork(Phase phase, std::uint64_t units);
// A part of the planned work is done, by any thread; without effect in another phase.
void FinishWork(Phase phase, std::uint64_t units = 1);

// Called by the threads that do the work, one at a time. Null, at first: nobody listens.
using WorkObserver = void (*)(const WorkDone&);
void SetWorkObserver(WorkObserver observer);

}  // namespace zp
