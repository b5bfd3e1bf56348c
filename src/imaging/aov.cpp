// imaging/aov.cpp: output images before and after they are filled.

#include <chrono>
#include <ctime>
#include <map>
#include <mutex>

#include "core/console.h"
#include "core/stop.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"

namespace zp {

void InitializeAov(Aov& aov, int width, int height) {
  aov.width = width;
  aov.height = height;
  Allocate(aov.image, width, height, 3, 32, false);
}

void SaveAovs(const std::vector<Aov>& aovs) {
  if (Stopping() && CountSamples(frameState) == 0) return;
  for (const Aov& aov : aovs) {
    if (aov.image.fileName.empty() || aov.image.width <= 0) continue;
    const bool saved =
        IsFinished(aov, frameState) ? SaveImage(aov.image) : SaveImage(FinishedPicture(aov, frameState));
    if (!saved) PrintError("image - " + aov.image.fileName + "\tcannot be written");
  }
}

// A name that was given out before gets "-2", "-3" and so on before its extension: two cameras of the same
// second must not write over each other. The map outlives the second, because local time can run back.
std::string DefaultBeautyName() {
  static std::mutex mutex;
  static std::map<std::string, int> given;
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm local = {};
  localtime_r(&now, &local);
  char stamp[64];
  std::string name(stamp, std::strftime(stamp, sizeof stamp, "beauty-%Y%m%d-%H%M%S", &local));
  const std::lock_guard lock(mutex);
  const int count = ++given[name];
  if (count > 1) name += "-" + std::to_string(count);
  return name + ".hdr";
}

}  // namespace zp
