#include "imaging/frame_layers.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "core/settings.h"

namespace zp {
namespace {

bool HasLayer(const Camera& camera, std::string_view layer) {
  return std::any_of(camera.aovs.begin(), camera.aovs.end(),
                     [layer](const Aov& aov) { return aov.layer == layer; });
}

// The word of a camera's AOV; empty for one that records nothing.
std::string WordOf(const Aov& aov) {
  if (aov.channel == kChannelUserData) return aov.userData;
  for (const ChannelWord& row : kChannelWords)
    if (aov.channel == row.channel || (settings.format >= 2 && aov.lastType == row.channel))
      return std::string(row.word);
  return {};
}

void SetLayer(Aov& aov, const LayerRow& row) {
  aov.channel = row.channel;
  aov.lastType = 0;
  if (row.channel == kChannelUserData) aov.userData = row.word;
  aov.layer = row.layer;
}

// In format 1 what scene text asks for is vertex data, whatever it is called.
void NameNameless(Camera& camera) {
  for (std::size_t i = 1; i < camera.aovs.size(); ++i) {
    Aov& aov = camera.aovs[i];
    const std::string word = WordOf(aov);
    if (!aov.image.fileName.empty() || word.empty()) continue;
    const LayerRow* row = FindLayerRow(word);
    const bool standard = row != nullptr && (settings.format >= 2 || word == "uv");
    std::string layer = standard ? std::string(row->layer) : word;
    if (!standard && FindLayerRowOf(layer) != nullptr) layer += "_data";
    if (!standard && layer.starts_with(kGroupPrefix)) layer.insert(0, "data_");
    if (HasLayer(camera, layer)) continue;
    if (standard)
      SetLayer(aov, *row);
    else
      aov.layer = layer;
  }
}

// What decides comes first, so that readers of sums know it when the others come.
void TakeNearest(Camera& camera) {
  for (Aov& aov : camera.aovs) {
    const LayerRow* row = FindLayerRowOf(aov.layer);
    aov.nearest = row != nullptr && row->channel == aov.channel && row->ofHits;
  }
  Aov& nearness = *camera.aovs.emplace(camera.aovs.begin() + 1);
  nearness.channel = kChannelNearness;
  nearness.nearest = true;
}

}  // namespace

const LayerRow* FindLayerRow(std::string_view word) {
  const auto* row = std::find_if(std::begin(kLayerRows), std::end(kLayerRows),
                                 [&](const LayerRow& r) { return r.word == word; });
  return row == std::end(kLayerRows) ? nullptr : row;
}

const LayerRow* FindLayerRowOf(std::string_view layer) {
  const auto* row = std::find_if(std::begin(kLayerRows), std::end(kLayerRows),
                                 [&](const LayerRow& r) { return r.layer == layer; });
  return row == std::end(kLayerRows) ? nullptr : row;
}

void AddLayers(Camera& camera, const std::vector<std::string>& words, bool nearest) {
  NameNameless(camera);
  for (const std::string& word : words) {
    const LayerRow* row = FindLayerRow(word);
    if (row != nullptr && !HasLayer(camera, row->layer)) SetLayer(camera.aovs.emplace_back(), *row);
    for (const ChannelWord& channel : kChannelWords) {
      if (row != nullptr || channel.word != word || HasLayer(camera, word)) continue;
      Aov& aov = camera.aovs.emplace_back();
      aov.channel = channel.channel;
      aov.layer = word;
    }
  }
  camera.aovs.emplace_back().channel = kChannelCover;
  if (nearest) TakeNearest(camera);
}

void AddGroupLayers(Camera& camera, const std::vector<std::string>& groups) {
  std::vector<std::string> names = groups;
  names.emplace_back(kRestGroup);
  for (const std::string& name : names) {
    const std::string layer = std::string(kGroupPrefix) + name;
    if (HasLayer(camera, layer)) continue;
    Aov& aov = camera.aovs.emplace_back();
    aov.channel = kChannelLightGroup;
    aov.layer = layer;
    aov.mean = true;
  }
}

std::string NameBeside(const std::string& beauty, const std::string& layer) {
  const LayerRow* row = FindLayerRowOf(layer);
  const std::filesystem::path path = beauty;
  std::string word = row == nullptr ? layer : std::string(row->word);
  std::replace(word.begin(), word.end(), '/', '_');
  return (path.parent_path() / (path.stem().string() + "." + word + path.extension().string())).string();
}

void NameLightLayers(Camera& camera, std::vector<Aov>& aovs, const std::string& light) {
  std::set<std::string> taken;
  for (const Aov& aov : camera.aovs) taken.insert(aov.layer);
  for (Aov& aov : aovs) {
    if (!aov.image.fileName.empty()) continue;
    const std::string name = "aov_" + light + (aov.shaderName.empty() ? "" : "_" + aov.shaderName);
    aov.layer = name;
    for (int number = 2; !taken.insert(aov.layer).second; ++number)
      aov.layer = name + "_" + std::to_string(number);
  }
}

}  // namespace zp
