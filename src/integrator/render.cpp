// Passes, and what surrounds them.

#include <omp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "accel/accel.h"
#include "core/console.h"
#include "core/index.h"
#include "core/random.h"
#include "core/stop.h"
#include "imaging/frame_state.h"
#include "imaging/preview.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "integrator/light_shares.h"
#include "integrator/surface_layers.h"
#include "lights/lights.h"

namespace zp {

namespace {

struct Region {
  int xMin = 0, yMin = 0, xMax = 0, yMax = 0;
};

// The camera's region, cut to its sensor once more: a host may have written it after initialisation.
Region RegionOf(const Camera& camera) {
  Region region = {std::max(camera.regionXMin, 0), std::max(camera.regionYMin, 0),
                   std::min(camera.regionXMax, camera.width), std::min(camera.regionYMax, camera.height)};
  region.xMax = std::max(region.xMax, region.xMin);
  region.yMax = std::max(region.yMax, region.yMin);
  return region;
}

std::uint32_t PixelIndex(const Camera& camera, int x, int y) {
  return static_cast<std::uint32_t>(camera.width) * static_cast<std::uint32_t>(y) +
         static_cast<std::uint32_t>(x);
}

// What all samples of a pass share.
struct Pass {
  const Camera& camera;
  CameraPose pose;
  Region region;
  std::uint32_t number;
};

// What a thread has met in a pass so far, with the first pixels row by row.
FrameFaults faultsOfThreads[kMaxThreads];

// Behind a stop the sample is dropped.
[[gnu::noinline]] void CountOddSample(OddSamples& odd, std::uint32_t pixel, Vec3 taken = kBlack) {
  if (Stopping()) return;
  ++odd.samples;
  if (odd.pixels.size() < OddSamples::kMostPixels) odd.pixels.push_back(pixel);
  for (int c = 0; c < 3; ++c)
    if (std::isfinite(taken[c])) odd.taken[static_cast<std::size_t>(c)] += static_cast<double>(taken[c]);
}

// Ends what BeginSample has begun.
[[gnu::noinline]] void EndSample(std::uint8_t thread, std::uint32_t pixel, Vec3 color, Vec3 limited) {
  if (!IsFinite(color)) return ReplaceSample(thread, limited);
  LimitSample(thread, color, limited);
  const TakenLight taken = TakenByLimits(thread);
  if (taken.any) CountOddSample(faultsOfThreads[thread].clampedIndirect, pixel, taken.light);
}

// The ray of a pixel's sample, and where in the pixel it begins.
struct PixelRay {
  RayRecord ray;
  Vec2 place;
};
void MakePixelRay(const Pass& pass, int x, int y, std::uint8_t thread, PixelRay& made) {
  made.ray.origin = made.ray.direction = kBlack;
  made.ray.thread = thread;
  made.place = MakePrimaryRay(pass.camera, pass.pose, made.ray, x, y, pass.number);
}

// Whether pixels' rays draw nothing that has to be drawn in its turn. Then each is made before the ray of the
// pixel in front of it is followed, whose walk need not wait for it.
bool MakesRaysAhead() { return settings.format >= 2; }

// One sample of one pixel, fit to be shown. `made` is its ray, or scratch where that is made in its turn.
Vec3 SamplePixel(const Pass& pass, int x, int y, std::uint8_t thread, PixelRay& made) {
  const std::uint32_t pixel = PixelIndex(pass.camera, x, y);
  threadSlots[thread].pixel = pixel;
  RekeyRandom(pixel, pass.number);
  if (!MakesRaysAhead()) MakePixelRay(pass, x, y, thread, made);
  if (layerTargets.ofSamples) BeginSampleLayers(thread, pixel, made.place);
  if (followsShares) [[unlikely]]
    BeginSample(made.ray);
  const Vec3 color = Radiance(made.ray);
  const bool isNumber = IsFinite(color);
  const Vec3 limited = isNumber ? MinOf(settings.said.clamp, color) : settings.said.error;
  if (!isNumber)
    CountOddSample(faultsOfThreads[thread].notANumber, pixel);
  else if (limited != color)
    CountOddSample(faultsOfThreads[thread].clamped, pixel, color - limited);
  if (followsShares) [[unlikely]]
    EndSample(thread, pixel, color, limited);
  return limited;
}

// Sums what the threads have met in a pass. Each has seen rows from above, so that the first of all are
// among the first of each.
void CollectOddSamples(OddSamples FrameFaults::*kind) {
  OddSamples& all = frameFaults.*kind;
  std::vector<std::uint32_t> found;
  for (FrameFaults& faults : faultsOfThreads) {
    const OddSamples odd = std::exchange(faults.*kind, {});
    all.samples += odd.samples;
    for (std::size_t c = 0; c < 3; ++c) all.taken[c] += odd.taken[c];
    found.insert(found.end(), odd.pixels.begin(), odd.pixels.end());
  }
  std::sort(found.begin(), found.end());
  for (const std::uint32_t pixel : found)
    if (all.pixels.size() < OddSamples::kMostPixels &&
        std::find(all.pixels.begin(), all.pixels.end(), pixel) == all.pixels.end())
      all.pixels.push_back(pixel);
}
void CollectOddSamples() {
  for (OddSamples FrameFaults::*kind :
       {&FrameFaults::notANumber, &FrameFaults::clamped, &FrameFaults::clampedIndirect})
    CollectOddSamples(kind);
}

// That a thread has taken in the pass so far.
std::uint64_t RaysOf(std::uint8_t thread) {
  return threadSlots[thread].rays + threadSlots[thread].shadowRays;
}

// Mean of `samples` and one more.
void AddToMean(ImageBuffer& mean, std::size_t pixel, Vec3 color, std::uint32_t samples) {
  const auto count = static_cast<float>(samples);
  WritePixel(mean, (ReadPixel(mean, pixel) * count + color) / (count + 1.0f), pixel);
}

// The same of an image of means, with those that go with it.
//   samples  of the pixel in the half set of the pass
void AddSample(Aov& aov, std::size_t pixel, Vec3 color, std::uint32_t half, std::uint32_t done,
               std::uint32_t samples) {
  if (aov.odd.empty() || settings.format < 2) AddToMean(aov.image, pixel, color, done);
  if (aov.odd.empty() || (settings.format < 2 && half == 0)) return;
  AddToMean(half == 0 ? aov.image : aov.odd[0].image, pixel, color, samples);
  if (!aov.squares.empty()) AddToMean(aov.squares[half].image, pixel, color * color, samples);
}

// Sums the threads' counters into the settings and clears them.
void CollectRayCounts() {
  for (ThreadSlot& slot : threadSlots) {
    settings.frame.rendererRays += slot.rays;
    settings.frame.shadowRays += slot.shadowRays;
    slot.rays = slot.shadowRays = 0;
  }
}

void ClearPassStatistics() {
  settings.frame.renderMicroseconds = 0;
  settings.frame.rendererRays = settings.frame.shadowRays = 0;
  for (ThreadSlot& slot : threadSlots) slot.innerNodes = slot.leaves = slot.primitives = 0;
}

// Visits the AOVs of the camera that renders and of all lights, and behind each those that go with it.
template <class Visit>
void ForEachAov(Camera& camera, const Visit& visit) {
  const auto visitAll = [&](std::vector<Aov>& aovs) {
    for (Aov& aov : aovs) {
      visit(aov);
      for (Aov& odd : aov.odd) visit(odd);
      for (Aov& squares : aov.squares) visit(squares);
    }
  };
  visitAll(camera.aovs);
  for (PointLight& light : pointLights) visitAll(light.aovs);
  for (ParallelLight& light : parallelLights) visitAll(light.aovs);
  visitAll(skyLight.aovs);
  visitAll(geometryLight.aovs);
}

// What samples add to the sums of a pixel, so that an unfinished one can be taken back. A thread has its own.
class PixelSums {
 public:
  explicit PixelSums(const std::vector<Aov*>& aovs) : aovs_(aovs), kept_(aovs.size()) {}

  void Keep(std::size_t pixel) {
    for (std::size_t i = 0; i < aovs_.size(); ++i) kept_[i] = ReadPixel(aovs_[i]->image, pixel);
  }
  void PutBack(std::size_t pixel) const {
    for (std::size_t i = 0; i < aovs_.size(); ++i) WritePixel(aovs_[i]->image, kept_[i], pixel);
  }

 private:
  const std::vector<Aov*>& aovs_;
  std::vector<Vec3> kept_;
};

// The AOVs that samples add to, of the camera's size as those are that can be written to, be they of a half
// set or not.
std::vector<Aov*> SummingAovs(Camera& camera) {
  std::vector<Aov*> aovs;
  const std::size_t pixels = static_cast<std::size_t>(std::max(camera.width, 0)) *
                             static_cast<std::size_t>(std::max(camera.height, 0));
  ForEachAov(camera, [&](Aov& aov) {
    if (aov.image.channels == 3 && aov.image.floatPixels.size() >= 3 * pixels &&
        aov.channel != kChannelLightPath && aov.channel != kChannelLightGroup &&
        !(aov.mean && aov.channel == kChannelBeauty))
      aovs.push_back(&aov);
  });
  return aovs;
}

void CountFrame(const Camera& camera, const Region& region) {
  frameState.planned = settings.format >= 2 ? 1 : static_cast<std::uint32_t>(std::max(camera.sample, 1));
  frameState.tilesAcross = TilesAlong(camera.width);
  frameState.left = region.xMin;
  frameState.right = region.xMax;
  frameState.rows.resize(static_cast<std::size_t>(std::max(camera.height, 0)));
}

// In format 1 shadow rays of the first pass order the slots of trees for those of the others. Of two faces at
// one place the order decides which is hit, so that all of a frame has to know it; format 2, whose frames go
// on in other processes from any pass on, does without.
bool OrdersOccluders() { return settings.format < 2; }

// Behind a pass that was cut short there is no next one: the frame starts over, its photons as they are. So
// it does within a first pass that another process has begun, and taken the logs of its shadow rays along.
void ForgetCutFrame(Camera& camera) {
  if (!frameState.interrupted && !(frameState.resumed == 0U && OrdersOccluders())) return;
  frameState = {};
  ForEachAov(camera, [](Aov& aov) {
    aov.matte.Clear();
    if (aov.channel != kChannelLightPath)
      std::fill(aov.image.floatPixels.begin(), aov.image.floatPixels.end(), 0.0f);
  });
}

FrameReport frameReport;  // behind the last whole pass

// Counts the whole rows of a pass, and tells the observer from the pass's first thread.
class RowCounter {
 public:
  explicit RowCounter(const Region& region) : rows_(region.yMax - region.yMin) {}

  //   rays  that the row has taken
  void Add(int thread, std::uint64_t rays) {
    done_.fetch_add(1, std::memory_order_relaxed);
    rays_.fetch_add(rays, std::memory_order_relaxed);
    if (thread != 0 || !frameObserver.rowsDone) return;
    constexpr std::int64_t kPause = 1'000'000;  // ticks
    const std::int64_t now = WallTicks();
    if (now - told_ < kPause && now >= told_) return;
    told_ = now;
    frameObserver.rowsDone(Report());
  }
  bool HasAll() const { return done_ == rows_; }
  FrameReport Report() const {
    FrameReport report = frameReport;
    report.begun = static_cast<float>(done_) / static_cast<float>(rows_);
    report.rays = rays_;
    report.microseconds = (WallTicks() - start_) / 10;
    return report;
  }

 private:
  int rows_;
  std::atomic<int> done_ = 0;
  std::atomic<std::uint64_t> rays_ = 0;
  std::int64_t start_ = WallTicks(), told_ = start_;  // the latter of the first thread
};

// The first column from x on whose pixel does not rest; the region's end if there is none.
int NextColumn(const Pass& pass, int x, int y) {
  while (x < pass.region.xMax && Rests(frameState, x, y, pass.number)) x = (x | (kTile - 1)) + 1;
  return std::min(x, pass.region.xMax);
}

// One sample of each pixel of a row, from column x on. Returns the first column that got none: the region's
// end unless a stop has cut the row short.
template <class Sink>
int SampleRow(const Pass& pass, int x, int y, std::uint8_t thread, PixelSums& sums, const Sink& sink) {
  PixelRay rays[2];
  x = NextColumn(pass, x, y);
  if (MakesRaysAhead() && x < pass.region.xMax) MakePixelRay(pass, x, y, thread, rays[0]);
  for (int turn = 0; x < pass.region.xMax && !Stopping(); turn = 1 - turn) {
    const int next = NextColumn(pass, x + 1, y);
    if (MakesRaysAhead() && next < pass.region.xMax) MakePixelRay(pass, next, y, thread, rays[1 - turn]);
    const std::size_t pixel = PixelIndex(pass.camera, x, y);
    sums.Keep(pixel);
    const Vec3 color = SamplePixel(pass, x, y, thread, rays[turn]);
    if (Stopping()) {
      sums.PutBack(pixel);
      break;
    }
    if (layerTargets.ofSamples) FinishSampleLayers(thread, x, y);
    sink(x, y, color, thread);
    x = next;
  }
  return x;
}

// The column where a row lacks its sample of a pass: the region's end if it has all of them.
int FirstMissing(const Pass& pass, const RowSamples& row) {
  if (frameState.resumed != pass.number) return pass.region.xMin;
  return row.whole > pass.number - PassesToRender().begin ? pass.region.xMax
                                                          : std::max(pass.region.xMin, row.cut);
}

// Samples every pixel of the region once; `sink` receives x, y, the colour and its thread. False when a stop
// has left pixels out. Rows are dealt out by hand: a loop of OpenMP could not pause.
template <class Sink>
bool SampleRegion(Camera& camera, const Region& region, std::uint32_t number, const Sink& sink) {
  const int threads = std::clamp(omp_get_max_threads(), 1, kMaxThreads);
  const std::vector<Aov*> aovs = SummingAovs(camera);
  const Pass pass = {camera, CameraAtTime(camera, TimeOfPass(camera, number)), region, number};
  FindLayerTargets(camera, pass.pose, number);
  if (followsShares) PrepareShares(camera, threads);
  CountFrame(camera, region);
  RowCounter rows(region);
  const std::int64_t start = WallTicks();
  std::atomic<int> next = region.yMin;
  const auto takeRows = [&] {
    const auto thread = static_cast<std::uint8_t>(omp_get_thread_num());
    PixelSums sums(aovs);
    std::uint64_t rays = RaysOf(thread);
    while (!Stopping() && !framePause) {
      const int y = next.fetch_add(1, std::memory_order_relaxed);
      if (y >= region.yMax) break;
      RowSamples& row = At(frameState.rows, y);
      const int first = FirstMissing(pass, row);
      const int end = SampleRow(pass, first, y, thread, sums, sink);
      if (end < region.xMax) {
        row.cut = end;
        continue;
      }
      if (first < region.xMax) ++row.whole;
      row.cut = 0;
      const std::uint64_t before = std::exchange(rays, RaysOf(thread));
      rows.Add(thread, rays - before);
    }
  };
  while (next < region.yMax && !Stopping()) {
#pragma omp parallel num_threads(threads)
    takeRows();
    if (framePause.exchange(false) && frameObserver.paused && !rows.HasAll())
      frameObserver.paused(rows.Report());
  }
  if (!rows.HasAll()) frameState.interrupted = true;
  settings.frame.renderMicroseconds += (WallTicks() - start) / 10;
  CollectRayCounts();
  CollectOddSamples();
  if (rows.HasAll()) frameState.resumed.reset();
  return rows.HasAll();
}

void PrintPerformance() {
  const auto rays = static_cast<double>(settings.frame.rendererRays + settings.frame.shadowRays);
  const auto time = static_cast<double>(std::max<std::int64_t>(settings.frame.renderMicroseconds, 1));
  PrintTwoValueRow("performance", static_cast<float>(rays / time), "M rays/second", "    ",
                   static_cast<float>(1e6 / time), "frames/second");
}

void SaveCameraImages() {
  for (const Camera& camera : cameras) SaveAovs(camera.aovs);
}

// Intended: of the process, not of the frame.
std::int64_t StartOfFrames() {
  static const std::int64_t start = WallTicks();
  return start;
}

const ImageBuffer* BeautyImage() {
  const Camera* camera = ActiveCamera();
  if (camera == nullptr || camera->aovs.empty()) return nullptr;
  const Aov& beauty = camera->aovs[0];
  static ImageBuffer finished;
  if (IsFinished(beauty, frameState)) return &beauty.image;
  finished = FinishedPicture(beauty, frameState);
  return &finished;
}

// How much of the picture's light a limit has taken, by the means of both; per cent.
float TakenShare(const OddSamples& odd, Vec3 mean) {
  const double cut = odd.taken[0] + odd.taken[1] + odd.taken[2];
  const double all =
      cut + static_cast<double>(mean.x) + static_cast<double>(mean.y) + static_cast<double>(mean.z);
  return all > 0 ? static_cast<float>(100 * cut / all) : 0.0f;
}

void PrintTaken(Vec3 mean) {
  const FrameFaults faults = TellFaults();
  if (settings.format >= 2 && faults.clamped.samples > 0) {
    PrintIntegerRow("clamp cut", faults.clamped.samples, "samples");
    PrintFloatRow("clamp took", TakenShare(faults.clamped, mean), "% of the light");
  }
  if (settings.format >= 2 && faults.clampedIndirect.samples > 0) {
    PrintIntegerRow("clamp_indirect cut", faults.clampedIndirect.samples, "samples");
    PrintFloatRow("clamp_indirect took", TakenShare(faults.clampedIndirect, mean), "% of the light");
  }
}

void FinishFrame(const Camera& camera) {
  if (camera.aovs.empty()) return;
  const ImageBuffer& beauty = *BeautyImage();
  Vec3 mean, variance;
  ImageStatistics(beauty, mean, variance);
  PrintRule();
  PrintVectorRow("avgerage of " + beauty.fileName, mean, "n/a");
  PrintVectorRow("variance of " + beauty.fileName, variance, "n/a");
  PrintTaken(mean);
  PrintRule();
  const std::int64_t ticks = std::max<std::int64_t>(WallTicks() - StartOfFrames(), 0);
  PrintIntegerRow("rendering time", static_cast<std::uint64_t>(ticks / 10'000'000), "seconds");
  PrintRule();
  PrintLine("            close the window to exit. happy rendering :) thank you!");
  PrintRule();
  SaveCameraImages();
  FinalizeSky();
  FinalizeGeometryLight();
  FinalizeGaffer();
}

bool HasCamera() {
  if (ActiveCamera() != nullptr) return true;
  PrintError("camera - there is no camera", {"camera-missing"});
  return false;
}

// The window calls the frame step until it is closed. Unless settings.said.previewReturns, that ends the
// process.
void RenderInWindow(const Camera& camera) {
  Preview preview;
  preview.width = camera.width;
  preview.height = camera.height;
  preview.picture = BeautyImage;
  preview.step = [] {
    FrameStep();
    const Camera* active = ActiveCamera();
    return active != nullptr && !frameObserver.finish && settings.frame.passIndex < PassesToRender().end;
  };
  preview.stop = Stopping;
  // Intended: only the first image. The last pass has written all of them.
  preview.closed = [] {
    if (BeautyImage() != nullptr) SaveAov(ActiveCamera()->aovs[0]);
  };
  preview.lost = SaveCameraImages;
  preview.end = settings.said.previewReturns ? PreviewEnd::kReturn : PreviewEnd::kEndProcess;
  RunPreview(preview);
}

// The scene at an instant of the shutter. Samples of the geometry light go by where emitters are then.
void MoveTo(float time) {
  MoveScene(time);
  MoveEmitters();
}

// Takes the first pass for the order of its occluders alone.
void ReplayFirstPass(Camera& camera) {
  std::vector<std::vector<float>> kept;
  std::vector<MatteLists> mattes;
  ForEachAov(camera, [&](Aov& aov) {
    kept.push_back(aov.image.floatPixels);
    mattes.push_back(std::exchange(aov.matte, {}));
  });
  FrameState state = std::exchange(frameState, {});
  FrameObserver observer = std::exchange(frameObserver, {});
  settings.frame.samplePass = 0;
  ClearOccluderLogs();
  MoveTo(TimeOfPass(camera, 0));
  SampleRegion(camera, RegionOf(camera), 0, [](int, int, Vec3, std::uint8_t) {});
  for (Object& object : objectTable) OrderOccluders(object);
  std::size_t count = 0;
  ForEachAov(camera, [&](Aov& aov) {
    aov.matte = std::move(mattes[count]);
    aov.image.floatPixels = std::move(kept[count++]);
  });
  frameState = std::move(state);
  frameObserver = std::move(observer);
  CollectOddSamples();  // which RenderLoop forgets
}

}  // namespace

void ImageStatistics(const ImageBuffer& image, Vec3& mean, Vec3& variance) {
  mean = variance = kBlack;
  if (image.width <= 0 || image.height <= 0) return;
  const std::size_t pixels = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
  if (image.floatPixels.size() < pixels * static_cast<std::size_t>(std::max(image.channels, 1))) return;
  double sum[3] = {}, squares = 0;
  for (std::size_t i = 0; i < pixels; ++i) {
    const Vec3 color = ReadPixel(image, i);
    for (int c = 0; c < 3; ++c) sum[c] += static_cast<double>(color[c]);
    const auto largest = static_cast<double>(std::max({color.x, color.y, color.z}));
    squares += largest * largest;
  }
  const auto count = static_cast<double>(pixels);
  for (int c = 0; c < 3; ++c) {
    const double average = sum[c] / count;
    mean[c] = static_cast<float>(average);
    variance[c] = static_cast<float>(squares / count - average * average);
  }
}

FrameFaults TellFaults() {
  FrameFaults faults = frameFaults;
  if (faults.clamped.samples + faults.clampedIndirect.samples == 0) return faults;
  const std::uint64_t samples = CountSamples(frameState);
  const std::uint64_t counted = samples - std::min(samples, frameFaults.held);
  for (OddSamples* odd : {&faults.clamped, &faults.clampedIndirect})
    for (double& light : odd->taken) light /= static_cast<double>(std::max<std::uint64_t>(counted, 1));
  return faults;
}

void VisitFrameAovs(Camera& camera, const std::function<void(Aov&)>& visit) { ForEachAov(camera, visit); }

PassRange PassesToRender() {
  const Camera* camera = ActiveCamera();
  const auto planned = static_cast<std::uint32_t>(camera == nullptr ? 0 : std::max(camera->sample, 0));
  if (!frameShare.passes) return {0, planned};
  const std::uint32_t end = std::min(frameShare.passes->end, planned);
  return {std::min(frameShare.passes->begin, end), end};
}

bool RenderPixels(std::uint32_t pass) {
  if (!HasCamera()) return true;
  Camera& camera = *ActiveCamera();
  if (camera.aovs.empty()) return true;
  Aov& beauty = camera.aovs[0];
  if (beauty.image.width != camera.width || beauty.image.height != camera.height ||
      beauty.image.floatPixels.empty())
    return !Stopping();
  const std::uint32_t done = pass - std::min(pass, PassesToRender().begin);
  return SampleRegion(camera, RegionOf(camera), pass, [&](int x, int y, Vec3 color, std::uint8_t thread) {
    const std::size_t pixel = PixelIndex(camera, x, y);
    const std::uint32_t half = HalfOfPass(pass);
    const std::uint32_t samples = beauty.odd.empty() ? done : SamplesOf(frameState, x, y, half);
    const auto add = [&](Aov& aov, Vec3 value) { AddSample(aov, pixel, value, half, done, samples); };
    add(beauty, color);
    if (followsShares) [[unlikely]]
      ForEachGroup(thread, add);
  });
}

void RenderPixels(int count, float* out, int pass) {
  if (!HasCamera()) return;
  Camera& camera = *ActiveCamera();
  const Region region = RegionOf(camera);
  const std::int32_t passes = std::max(camera.sample, 1);
  const std::int32_t sample = (pass % passes + passes) % passes;
  settings.frame.samplePass = sample;
  ClearPassStatistics();
  MoveTo(TimeOfPass(camera, static_cast<std::uint32_t>(sample)));

  const auto width = static_cast<std::size_t>(region.xMax - region.xMin);
  std::vector<Vec3> colors(width * static_cast<std::size_t>(region.yMax - region.yMin));
  SampleRegion(camera, region, static_cast<std::uint32_t>(sample),
               [&](int x, int y, Vec3 color, std::uint8_t) {
                 colors[static_cast<std::size_t>(y - region.yMin) * width +
                        static_cast<std::size_t>(x - region.xMin)] = color;
               });
  if (out == nullptr || count <= 0) return;
  const std::size_t copied = std::min(colors.size(), static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < copied; ++i)
    for (int c = 0; c < 3; ++c) *out++ = colors[i][c];
}

void FrameStep() {
  StartOfFrames();
  Camera* camera = ActiveCamera();
  if (camera == nullptr || camera->sample <= 0) return;
  const PassRange passes = PassesToRender();
  if (settings.frame.passIndex >= passes.end) return;

  settings.frame.samplePass = static_cast<std::int32_t>(settings.frame.passIndex);
  ClearOccluderLogs();
  ClearPassStatistics();
  MoveTo(TimeOfPass(*camera, settings.frame.passIndex));
  if (!RenderPixels(settings.frame.passIndex)) return;
  if (settings.frame.passIndex == 0 && OrdersOccluders())
    for (Object& object : objectTable) OrderOccluders(object);
  UpdateScene(camera->sample);
  ++settings.frame.passIndex;
  PrintPerformance();
  frameReport = {settings.frame.passIndex - passes.begin, passes.end - passes.begin, 0,
                 settings.frame.rendererRays + settings.frame.shadowRays, settings.frame.renderMicroseconds};
  if (frameObserver.passDone) frameObserver.passDone(frameReport);
  if (settings.frame.passIndex == passes.end || frameObserver.finish) FinishFrame(*camera);
}

void RenderLoop(std::uint32_t held) {
  const PassRange passes = PassesToRender();
  const std::uint32_t first = passes.begin + held;
  settings.frame.passIndex = first;
  if (!HasCamera()) return;
  const Camera& camera = *ActiveCamera();
  if (held == 0) ForgetCutFrame(*ActiveCamera());
  if (first > 0 && first < passes.end && OrdersOccluders()) ReplayFirstPass(*ActiveCamera());
  for (std::uint32_t pass = 0; pass < first && !Stopping(); ++pass) UpdateScene(camera.sample);
  frameReport = {held, passes.end - passes.begin};
  frameFaults = {};
  frameFaults.held = CountSamples(frameState);
  if (held > 0 && (first >= passes.end || frameObserver.finish)) return FinishFrame(camera);
  if (settings.said.previewWindow) {
    const std::string obstacle = PreviewObstacle(camera.width, camera.height);
    if (obstacle.empty()) return RenderInWindow(camera);
    PrintError("preview - no window, " + obstacle, {"preview-no-window"});
  }
  for (std::uint32_t pass = first; pass < passes.end && !Stopping() && !frameObserver.finish; ++pass)
    FrameStep();
}

}  // namespace zp
