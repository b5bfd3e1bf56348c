// imaging/aov.cpp: output images before and after they are filled.

#include "core/console.h"
#include "core/settings.h"
#include "core/stop.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"

namespace zp {

void SettleChannel(Aov& aov) {
  if (settings.format >= 2 && aov.lastType != 0) aov.channel = aov.lastType;
}

void InitializeAov(Aov& aov, int width, int height) {
  aov.width = width;
  aov.height = height;
  Allocate(aov.image, width, height, 3, 32, false);
}

void SaveAovs(const std::vector<Aov>& aovs) {
  if ((Stopping() || settings.format >= 2) && CountSamples(frameState) == 0) return;
  for (const Aov& aov : aovs) {
    if (aov.image.fileName.empty() || aov.image.width <= 0) continue;
    const std::string reason =
        IsFinished(aov, frameState) ? StoreImage(aov.image) : StoreImage(FinishedPicture(aov, frameState));
    if (!reason.empty()) PrintError("image - " + aov.image.fileName + "\tcannot be written: " + reason);
  }
}

}  // namespace zp
