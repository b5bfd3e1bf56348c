#include "core/progress.h"

#include <algorithm>
#include <iterator>
#include <mutex>

namespace zp {
namespace {

static_assert(std::size(kPhaseWords) == static_cast<std::size_t>(Phase::kWriting) + 1);

std::mutex workMutex;
WorkDone work = {Phase::kPasses};
WorkObserver workObserver = nullptr;

}  // namespace

void SetWorkObserver(WorkObserver observer) {
  const std::lock_guard lock(workMutex);
  workObserver = observer;
}

void BeginWork(Phase phase, std::uint64_t units) {
  const std::lock_guard lock(workMutex);
  work = {phase, 0, units};
  if (workObserver != nullptr) workObserver(work);
}

void PlanWork(Phase phase, std::uint64_t units) {
  const std::lock_guard lock(workMutex);
  if (work.phase != phase) work = {phase};
  work.total += units;
  if (workObserver != nullptr) workObserver(work);
}

void FinishWork(Phase phase, std::uint64_t units) {
  const std::lock_guard lock(workMutex);
  if (work.phase != phase) return;
  work.done = std::min(work.done + units, work.total);
  if (workObserver != nullptr) workObserver(work);
}

}  // namespace zp
