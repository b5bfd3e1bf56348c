// imaging/aov.cpp: output images before and after they are filled.

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
    const std::string reason =
        IsFinished(aov, frameState) ? StoreImage(aov.image) : StoreImage(FinishedPicture(aov, frameState));
    if (!reason.empty()) PrintError("image - " + aov.image.fileName + "\tcannot be written: " + reason);
  }
}

}  // namespace zp
