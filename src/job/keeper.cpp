#include "job/keeper.h"

#include <algorithm>
#include <vector>

#include "core/console.h"
#include "core/index.h"
#include "core/progress.h"
#include "imaging/frame_noise.h"

namespace zp {
namespace {

// Saves take at most this share of the time, however long one takes.
constexpr double kSaveShare = 0.01;

double SecondsBetween(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

}  // namespace

FrameKeeper::FrameKeeper(KeepOptions options, Checkpoint base)
    : options_(std::move(options)), base_(std::move(base)) {}

double FrameKeeper::Seconds() const { return base_.seconds + SecondsBetween(start_, Clock::now()); }

bool FrameKeeper::IsSaveDue() const {
  if (!(options_.saveEvery > 0)) return false;
  return SecondsBetween(saved_, Clock::now()) >= std::max(options_.saveEvery, saveSeconds_ / kSaveShare);
}

void FrameKeeper::RowsDone() {
  if (IsSaveDue()) framePause = true;
}

void FrameKeeper::PassDone(const FrameReport& report) {
  // Half a pass too many is as near to the limit as half a pass too few.
  const auto now = Clock::now();
  const double pass = SecondsBetween(passBegun_, now);
  passBegun_ = now;
  if (!HasTimeLeft(pass / 2) || HasReachedNoise(report.done)) frameObserver.finish = true;
  if (report.done >= report.total || frameObserver.finish)
    SaveCheckpoint();  // the images follow
  else if (IsSaveDue())
    Save();
}

bool FrameKeeper::HasReachedNoise(std::uint32_t passes) {
  if (!options_.noise || !IsMeasured(passes) || !IsIndex(cameras, settings.frame.activeCamera)) return false;
  const Camera& camera = At(cameras, settings.frame.activeCamera);
  if (camera.aovs.empty()) return false;
  const FrameNoise noise = MeasureNoise(camera.aovs[0], frameState);
  error_ = noise.error;
  if (noise.error <= *options_.noise) return true;
  if (settings.format >= 2) RestTiles(noise, *options_.noise, passes, frameState);
  return false;
}

void FrameKeeper::Save() {
  const auto begin = Clock::now();
  if (IsIndex(cameras, settings.frame.activeCamera)) {
    std::vector<const Aov*> saved;
    VisitFrameAovs(At(cameras, settings.frame.activeCamera), [&saved](const Aov& aov) {
      if (IsSaved(aov)) saved.push_back(&aov);
    });
    BeginWork(Phase::kWriting, saved.size());
    for (const Aov* aov : saved) SaveAov(*aov);
  }
  SaveCheckpoint();
  saved_ = Clock::now();
  saveSeconds_ = SecondsBetween(begin, saved_);
}

void FrameKeeper::SaveCheckpoint() {
  if (options_.checkpoint.empty()) return;
  Checkpoint checkpoint = DescribeFrame(base_.plan.seed);
  checkpoint.options = base_.options;
  checkpoint.files = base_.files;
  checkpoint.aovs = base_.aovs;  // with their names, which a part's own have lost
  checkpoint.seconds = Seconds();
  trouble_ = WriteCheckpoint(options_.checkpoint, checkpoint);
  if (!trouble_.empty())
    PrintError("checkpoint - " + options_.checkpoint + "\tcannot be written: " + trouble_,
               {"checkpoint-unwritten", options_.checkpoint});
}

}  // namespace zp
