// post/layers.h: pictures of several layers, in memory and in files.
// Reasons are the rest of a sentence about the file, "no space is left" or "it is damaged or cut off"; an
// empty text means that all went well. Nothing here prints or throws.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zp {

// What a layer's numbers are, and what a file keeps of them.
enum class LayerKind {
  kHalf,   // 16 bits; finite numbers beyond the largest half are held there
  kFloat,  // 32 bits
  kId,     // 32 bits whose pattern is a name's, as those of mattes: never averaged, never changed
  kWhole,  // whole numbers from 0, in files of 32 bits; exact up to 2^24
};

// Its channels are named "NAME.CHANNEL" in files; those of the layer without a name stand bare, and so does
// the channel of a layer that has one alone, of its own name: "Z".
struct Layer {
  std::string name;
  std::vector<std::string> channels;  // in the order of the numbers: "R", "G", "B", "A"
  LayerKind kind = LayerKind::kHalf;
  std::vector<float> numbers;  // of the data window, the top row first, channels interleaved
};

// Pixels from (left, top), right and bottom excluded; y points down.
struct PixelWindow {
  std::int32_t left = 0, top = 0, right = 0, bottom = 0;
  std::int32_t Width() const { return right - left; }
  std::int32_t Height() const { return bottom - top; }
  friend bool operator==(const PixelWindow&, const PixelWindow&) = default;
};

// A value of a type that nothing here asks about, handed on as it is.
struct OtherValue {
  std::string type, bytes;  // as OpenEXR names and packs it
};
// A matrix is one of four rows that vectors stand before, as OpenEXR has it.
using AttributeValue = std::variant<std::string, std::int32_t, float, double, std::array<float, 2>,
                                    std::array<float, 3>, std::array<float, 16>, OtherValue>;
struct Attribute {
  std::string name;  // one that OpenEXR defines, or "zephlore:..." of ours
  AttributeValue value;
};

struct LayeredPicture {
  PixelWindow display;        // the whole picture
  PixelWindow data;           // the pixels that there are
  std::vector<Layer> layers;  // the nameless one, the beauty, comes first if there is one
  std::vector<Attribute> attributes;
  bool isEncoded = false;  // numbers are from 0 to 1 by the curve of sRGB, as those of a PNG file
};

std::string ChannelName(const Layer& layer, std::size_t channel);
// Pixels of the data window.
std::size_t PixelCount(const LayeredPicture& picture);
// By its name; null if there is none.
Layer* FindLayer(LayeredPicture& picture, std::string_view name);
const Layer* FindLayer(const LayeredPicture& picture, std::string_view name);
// The channel's number in the layer, or -1.
int FindChannel(const Layer& layer, std::string_view channel);
// Adds one, or gives it another value.
void SetAttribute(LayeredPicture& picture, std::string name, AttributeValue value);
const AttributeValue* FindAttribute(const LayeredPicture& picture, std::string_view name);
// Decodes the curve of sRGB of colours that have it; alpha stays.
void MakeLinear(LayeredPicture& picture);

// Writes OpenEXR, whole or not at all, if the name ends in ".exr"; else the beauty, or the only layer, in the
// format that the end of the name tells: floats as they are, or bytes by the curve of sRGB.
//   held         receives how many finite numbers were too large for their halves
//   evenStopped  a stop of all work, behind which a frame is still to be saved, does not end it
std::string WriteLayers(const std::string& path, const LayeredPicture& picture, std::size_t* held = nullptr,
                        bool evenStopped = false);

// OpenEXR with all layers, flat parts and attributes, or any picture that the renderer reads as one layer.
// `picture` is a new one, without layers if there is a reason.
std::string ReadLayers(const std::string& path, LayeredPicture& picture);

}  // namespace zp
