// imaging/aov.cpp: output images before and after they are filled.

#include <algorithm>

#include "core/console.h"
#include "core/progress.h"
#include "core/settings.h"
#include "core/stop.h"
#include "imaging/frame_layers.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"

namespace zp {

namespace {

// Numbers are kept as they are, and light is where somebody has asked for it.
bool IsForEye(const Aov& aov) {
  return settings.format >= 2 && !settings.said.linearFiles && KindOf(aov) != ChannelKind::kNumber &&
         KeepsBytes(aov.image.fileName);
}

// A surface's colour is no light: it looks the same at every exposure.
std::array<double, 3> ExposureOf(const Aov& aov) {
  const auto active = static_cast<std::size_t>(settings.frame.activeCamera);
  if (KindOf(aov) != ChannelKind::kLight || active >= cameras.size()) return {1, 1, 1};
  const Vec3 exposure = cameras[active].exposure;
  return {static_cast<double>(exposure.x), static_cast<double>(exposure.y), static_cast<double>(exposure.z)};
}

// Shares of a number of passes, as format 1 plans it, cannot be divided by that of another one.
bool HasHalves(const Aov& aov) {
  if (aov.nearest) return false;
  if (settings.format < 2) return aov.mean && aov.channel != kChannelLightGroup;
  return aov.channel != kChannelLightPath && aov.channel != kChannelSamples;
}

// Another one that goes with it and is not written.
void AddHidden(const Aov& aov, std::vector<Aov>& hidden) {
  Aov& added = hidden.emplace_back();
  added.channel = aov.channel;
  added.ofLight = aov.ofLight;
  added.mean = aov.mean;
  added.width = aov.width;
  added.height = aov.height;
  Allocate(added.image, aov.width, aov.height, 3, 32, false);
}

}  // namespace

ChannelKind KindOf(const Aov& aov) {
  if (aov.mean || aov.ofLight) return ChannelKind::kLight;
  for (const ChannelWord& row : kChannelWords)
    if (aov.channel == row.channel) return row.kind;
  if (aov.channel == kChannelAlbedo) return ChannelKind::kColor;
  return ChannelKind::kNumber;
}

void SettleChannel(Aov& aov) {
  if (settings.format >= 2 && aov.lastType != 0) aov.channel = aov.lastType;
  if (settings.format < 2 && aov.lastType == kChannelSamples) aov.lastType = kChannelUserData;
}

void InitializeAov(Aov& aov, int width, int height) {
  aov.width = width;
  aov.height = height;
  if (IsMatte(aov)) {
    aov.matte.Resize(width, height);
    return aov.matte.MakeRoom();
  }
  Allocate(aov.image, width, height, 3, 32, false);
  aov.odd.clear();
  aov.squares.clear();
  if (!settings.said.halfSets || !HasHalves(aov)) return;
  AddHidden(aov, aov.odd);
  if (!aov.mean || aov.channel == kChannelLightGroup || settings.format < 2) return;
  for (int half = 0; half < 2; ++half) AddHidden(aov, aov.squares);
}

void SaveAovs(const std::vector<Aov>& aovs) {
  if ((Stopping() || settings.format >= 2) && CountSamples(frameState) == 0) return;
  const auto count = std::count_if(aovs.begin(), aovs.end(), IsSaved);
  if (count > 0) BeginWork(Phase::kWriting, static_cast<std::uint64_t>(count));
  for (const Aov& aov : aovs)
    if (IsSaved(aov)) SaveAov(aov);
}

bool IsSaved(const Aov& aov) { return !aov.image.fileName.empty() && aov.image.width > 0; }

namespace {

void TellSaved(const std::string& name, const std::string& reason) {
  FinishWork(Phase::kWriting);
  if (!reason.empty())
    PrintError("image - " + name + "\tcannot be written: " + reason, {"image-unwritten", name});
}

}  // namespace

void SavePicture(const Aov& aov, const ImageBuffer& picture) {
  TellSaved(picture.fileName,
            IsForEye(aov) ? StoreImage(ScreenPicture(picture, ExposureOf(aov))) : StoreImage(picture));
}

void SaveAov(const Aov& aov) {
  if (aov.withLayers && layerWriter)
    TellSaved(aov.image.fileName, layerWriter(aov));
  else if (IsFinished(aov, frameState))
    SavePicture(aov, aov.image);
  else
    SavePicture(aov, FinishedPicture(aov, frameState));
}

}  // namespace zp
