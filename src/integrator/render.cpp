// Passes, and what surrounds them.

#include <omp.h>

#include <algorithm>
#include <string>
#include <vector>

#include "accel/accel.h"
#include "core/console.h"
#include "core/random.h"
#include "imaging/preview.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

namespace zp {

std::function<void(const PassReport&)> passReporter;

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

// One sample of one pixel, fit to be shown.
Vec3 SamplePixel(const Camera& camera, int x, int y, std::uint32_t pass, std::uint8_t thread) {
  const auto pixel = static_cast<std::uint32_t>(camera.width) * static_cast<std::uint32_t>(y) +
                     static_cast<std::uint32_t>(x);
  threadSlots[thread].pixel = pixel;
  RekeyRandom(pixel, pass);
  RayRecord ray;
  ray.thread = thread;
  MakePrimaryRay(camera, ray, x, y, pass);
  const Vec3 color = Radiance(ray);
  return IsFinite(color) ? MinOf(settings.clamp, color) : settings.error;
}

// Sums the threads' counters into the settings and clears them.
void CollectRayCounts() {
  for (ThreadSlot& slot : threadSlots) {
    settings.rendererRays += slot.rays;
    settings.shadowRays += slot.shadowRays;
    slot.rays = slot.shadowRays = 0;
  }
}

void ClearPassStatistics() {
  settings.renderMicroseconds = 0;
  settings.rendererRays = settings.shadowRays = 0;
  for (ThreadSlot& slot : threadSlots) slot.innerNodes = slot.leaves = slot.primitives = 0;
}

// Samples every pixel of the region once; `sink` receives x, y and the colour, from any thread.
template <class Sink>
void SampleRegion(const Camera& camera, const Region& region, std::uint32_t pass, const Sink& sink) {
  settings.currentPass = static_cast<std::uint16_t>(pass);
  const int threads = std::clamp(omp_get_max_threads(), 1, kMaxThreads);
  const std::int64_t start = WallTicks();
#pragma omp parallel for schedule(dynamic, 1) num_threads(threads)
  for (int y = region.yMin; y < region.yMax; ++y) {
    const auto thread = static_cast<std::uint8_t>(omp_get_thread_num());
    for (int x = region.xMin; x < region.xMax; ++x) sink(x, y, SamplePixel(camera, x, y, pass, thread));
  }
  settings.renderMicroseconds += (WallTicks() - start) / 10;
  CollectRayCounts();
}

void PrintPerformance() {
  const auto rays = static_cast<double>(settings.rendererRays + settings.shadowRays);
  const auto time = static_cast<double>(std::max<std::int64_t>(settings.renderMicroseconds, 1));
  PrintTwoValueRow("performance", static_cast<float>(rays / time), "M rays/second", "    ",
                   static_cast<float>(1e6 / time), "frames/second");
}

void SaveCameraImages() {
  for (const Camera& camera : cameras) SaveAovs(camera.aovs);
}

void FinishFrame(const Aov& beauty, std::int64_t renderStart) {
  Vec3 mean, variance;
  ImageStatistics(beauty.image, mean, variance);
  PrintRule();
  PrintVectorRow("avgerage of " + beauty.image.fileName, mean, "n/a");
  PrintVectorRow("variance of " + beauty.image.fileName, variance, "n/a");
  PrintRule();
  const std::int64_t ticks = std::max<std::int64_t>(WallTicks() - renderStart, 0);
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
  PrintError("camera - there is no camera");
  return false;
}

const ImageBuffer* BeautyImage() {
  const Camera* camera = ActiveCamera();
  return camera == nullptr || camera->aovs.empty() ? nullptr : &camera->aovs[0].image;
}

// The window calls the frame step until it is closed. Unless settings.previewReturns, that ends the process.
void RenderInWindow(const Camera& camera) {
  Preview preview;
  preview.width = camera.width;
  preview.height = camera.height;
  preview.picture = BeautyImage;
  preview.step = [] {
    FrameStep();
    const Camera* active = ActiveCamera();
    return active != nullptr && static_cast<std::int64_t>(settings.passIndex) < active->sample;
  };
  preview.stop = [] { return stopRequested.load(); };
  // Intended: only the first image. The last pass has written all of them.
  preview.closed = [] {
    if (const ImageBuffer* beauty = BeautyImage()) SaveImage(*beauty);
  };
  preview.lost = SaveCameraImages;
  preview.end = settings.previewReturns ? PreviewEnd::kReturn : PreviewEnd::kEndProcess;
  RunPreview(preview);
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

void RenderPixels(std::uint32_t pass) {
  if (!HasCamera()) return;
  Camera& camera = *ActiveCamera();
  if (camera.aovs.empty()) return;
  ImageBuffer& beauty = camera.aovs[0].image;
  if (beauty.width != camera.width || beauty.height != camera.height || beauty.floatPixels.empty()) return;
  const auto done = static_cast<float>(pass);
  SampleRegion(camera, RegionOf(camera), pass, [&](int x, int y, Vec3 color) {
    const std::size_t pixel =
        static_cast<std::size_t>(y) * static_cast<std::size_t>(camera.width) + static_cast<std::size_t>(x);
    WritePixel(beauty, (ReadPixel(beauty, pixel) * done + color) / (done + 1.0f), pixel);
  });
}

void RenderPixels(int count, float* out, int pass) {
  if (!HasCamera()) return;
  const Camera& camera = *ActiveCamera();
  const Region region = RegionOf(camera);
  const std::int32_t passes = std::max(camera.sample, 1);
  const std::int32_t sample = (pass % passes + passes) % passes;
  settings.samplePass = sample;
  ClearPassStatistics();

  const auto width = static_cast<std::size_t>(region.xMax - region.xMin);
  std::vector<Vec3> colors(width * static_cast<std::size_t>(region.yMax - region.yMin));
  SampleRegion(camera, region, static_cast<std::uint32_t>(sample), [&](int x, int y, Vec3 color) {
    colors[static_cast<std::size_t>(y - region.yMin) * width + static_cast<std::size_t>(x - region.xMin)] =
        color;
  });
  if (out == nullptr || count <= 0) return;
  const std::size_t copied = std::min(colors.size(), static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < copied; ++i)
    for (int c = 0; c < 3; ++c) *out++ = colors[i][c];
}

void FrameStep() {
  static const std::int64_t renderStart = WallTicks();  // Intended: of the process, not of the frame
  Camera* camera = ActiveCamera();
  if (camera == nullptr || camera->sample <= 0) return;
  const auto total = static_cast<std::uint32_t>(camera->sample);
  if (settings.passIndex >= total) return;

  settings.samplePass = static_cast<std::int32_t>(settings.passIndex);
  ClearOccluderLogs();
  ClearPassStatistics();
  RenderPixels(settings.passIndex);
  if (settings.passIndex == 0)
    for (Object& object : objectTable) OrderOccluders(object);
  UpdateScene(camera->sample);
  ++settings.passIndex;
  PrintPerformance();
  if (passReporter)
    passReporter({settings.passIndex, total, settings.rendererRays + settings.shadowRays,
                  settings.renderMicroseconds});
  if (settings.passIndex == total && !camera->aovs.empty()) FinishFrame(camera->aovs[0], renderStart);
}

void RenderLoop() {
  settings.passIndex = 0;
  if (!HasCamera()) return;
  if (settings.previewWindow) {
    const Camera& camera = *ActiveCamera();
    const std::string obstacle = PreviewObstacle(camera.width, camera.height);
    if (obstacle.empty()) return RenderInWindow(camera);
    PrintError("preview - no window, " + obstacle);
  }
  for (std::int32_t pass = 0, passes = ActiveCamera()->sample; pass < passes && !stopRequested; ++pass)
    FrameStep();
}

}  // namespace zp
