// imaging/frame_layers.h: what a frame can have beside the beauty image for those who put pictures together.
// Layers are AOVs like others, so that all that keeps, shares and adds up frames keeps them, too.

#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "imaging/imaging.h"

namespace zp {

struct LayerRow {
  std::string_view word;      // as users ask for it
  std::uint32_t channel;      // of the AOV that it is made of
  std::string_view layer;     // its name in files of layers
  std::string_view channels;  // a letter each, there
  bool ofHits;                // a mean over the samples that hit something, in 32 bits
};
// Besides, each of kChannelWords is the layer of its own name.
inline constexpr LayerRow kLayerRows[] = {
    {"normal", kChannelFacing, "N", "XYZ", true},        {"depth", kChannelView, "Z", "Z", true},
    {"position", kChannelPosition, "P", "XYZ", true},    {"uv", kChannelUserData, "uv", "UV", true},
    {"motion", kChannelMotion, "motion", "XY", true},    {"albedo", kChannelAlbedo, "albedo", "RGB", false},
    {"samples", kChannelSamples, "samples", "Y", false}, {"object", kChannelObject, "object", "RGBA", false},
    {"shader", kChannelShader, "shader", "RGBA", false},
};
// By its word, or by the name of the layer; null if there is none.
const LayerRow* FindLayerRow(std::string_view word);
const LayerRow* FindLayerRowOf(std::string_view layer);

// Gives the camera, before it is initialised, the AOVs of these words, and what its alpha is made of. AOVs of
// camera and lights without images get the names that files of layers have for them. A word of no layer adds
// nothing.
//   nearest  layers of what was hit hold that of the sample nearest to each pixel's middle
void AddLayers(Camera& camera, const std::vector<std::string>& words, bool nearest = false);
// Names those of one light: "aov_NAME", with a number where it is taken by a layer of the camera.
void NameLightLayers(Camera& camera, std::vector<Aov>& aovs, const std::string& light);

// Light groups: what lights and emission of one `group` bring, or of none: the group "rest".
inline constexpr std::string_view kGroupPrefix = "light_";  // of their layers
inline constexpr std::string_view kRestGroup = "rest";
// Gives the camera, before it is initialised, an AOV for each of these groups and one for the rest.
void AddGroupLayers(Camera& camera, const std::vector<std::string>& groups);

// What a picture file that holds one layer is called, beside that of the beauty image: "x.depth.pfm".
std::string NameBeside(const std::string& beauty, const std::string& layer);

// Writes a beauty image with all layers of its frame, which it finds by itself, or the file of one layer;
// empty, or why not. Set by whoever has a library for such files.
inline std::function<std::string(const Aov&)> layerWriter;

}  // namespace zp
