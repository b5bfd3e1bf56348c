#include "job/run_progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

namespace zp {
namespace {

double SecondsBetween(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

std::uint64_t ResidentBytes() {
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen("/proc/self/statm", "re"),
                                                                std::fclose);
  unsigned long long all = 0, resident = 0;
  if (!file || std::fscanf(file.get(), "%llu %llu", &all, &resident) != 2) return 0;
  return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

void ProgressMeter::Update(Phase phase) {
  const Clock::time_point now = Clock::now();
  if (progress_.phase != phase) phaseStart_ = now;
  progress_.phase = phase;
  progress_.elapsed = SecondsBetween(start_, now);
  progress_.memory = ResidentBytes();
  progress_.remaining.reset();
}

const RunProgress& ProgressMeter::Take(const WorkDone& work) {
  Update(work.phase);
  progress_.done = work.done;
  progress_.total = work.total;
  progress_.begun = progress_.raysPerSecond = 0;
  if (work.phase != Phase::kWriting) firstDone_ = -1;
  // Photons are alike; files and objects are not.
  const auto left = static_cast<double>(work.total - work.done);
  if (work.phase == Phase::kCasting && work.done > 0)
    progress_.remaining = SecondsBetween(phaseStart_, Clock::now()) / static_cast<double>(work.done) * left;
  return progress_;
}

const RunProgress& ProgressMeter::Take(const FrameReport& report, const FrameStanding& standing) {
  Update(Phase::kPasses);
  progress_.error = standing.error;
  progress_.done = report.done;
  progress_.total = report.total;
  progress_.begun = static_cast<double>(report.begun);
  const double rays = static_cast<double>(report.rays),
               microseconds = static_cast<double>(report.microseconds);
  progress_.raysPerSecond = microseconds > 0 ? 1e6 * rays / microseconds : 0;
  const double done = static_cast<double>(report.done) + progress_.begun;
  if (firstDone_ < 0) {  // the first report may be that of a pass, which has taken its time already
    const bool endsPass = report.begun == 0 && report.microseconds > 0 && report.done > 0;
    firstDone_ = static_cast<double>(report.done) - (endsPass ? 1 : 0);
    passesStart_ = Clock::now() - std::chrono::microseconds(report.microseconds);
  }
  if (done > firstDone_) {
    const double spent = SecondsBetween(passesStart_, Clock::now());
    double total = static_cast<double>(report.total);
    if (standing.error && standing.noise && *standing.noise > 0) {  // which falls with the root of the passes
      const double ratio = *standing.error / *standing.noise;
      total = std::min(total, std::max(done * ratio * ratio, done));
    }
    progress_.remaining = spent / (done - firstDone_) * (total - done);
  }
  if (standing.time) {
    const double left = *standing.time - standing.seconds;
    progress_.remaining = std::max(std::min(progress_.remaining.value_or(left), left), 0.0);
  }
  return progress_;
}

std::string ProgressJson(const RunProgress& progress) {
  const auto number = [](const std::optional<double>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
  };
  const nlohmann::ordered_json line = {{"type", "progress"},
                                       {"phase", kPhaseWords[static_cast<std::size_t>(progress.phase)]},
                                       {"done", progress.done},
                                       {"total", progress.total},
                                       {"begun", progress.begun},
                                       {"rays_per_second", progress.raysPerSecond},
                                       {"elapsed_s", progress.elapsed},
                                       {"remaining_s", number(progress.remaining)},
                                       {"memory_bytes", progress.memory},
                                       {"error", number(progress.error)}};
  return line.dump();
}

}  // namespace zp
