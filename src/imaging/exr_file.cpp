#include "imaging/exr_file.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfIO.h>
#include <ImfInputPart.h>
#include <ImfMultiPartInputFile.h>
#include <ImfOutputFile.h>
#include <ImfRgbaFile.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "imaging/exr_bytes.h"

namespace zp {
namespace {

using Imath::Box2i;

// What of a file is read: the names of one or more channels, or luminance with two colour differences.
struct Selection {
  std::vector<std::string> names;
  bool isLuminanceChroma = false;
};

Selection SelectLayer(const Imf::ChannelList& channels, const std::string& layer) {
  const auto has = [&](const char* name) {
    const Imf::Channel* channel = channels.findChannel(layer + name);
    return channel && channel->xSampling == 1 && channel->ySampling == 1;
  };
  if (has("R") && has("G") && has("B")) {
    Selection selection = {{layer + "R", layer + "G", layer + "B"}};
    if (has("A")) selection.names.push_back(layer + "A");
    return selection;
  }
  if (layer.empty() && has("Y") && channels.findChannel("RY") && channels.findChannel("BY"))
    return {{"R", "G", "B"}, true};
  if (has("Y")) return {{layer + "Y"}};
  return {};
}

// None if the file holds nothing that is a picture.
Selection SelectChannels(const Imf::ChannelList& channels) {
  Selection selection = SelectLayer(channels, "");
  std::string only;
  int count = 0;
  for (auto i = channels.begin(); i != channels.end() && selection.names.empty(); ++i, ++count) {
    only = i.name();
    const std::size_t dot = only.rfind('.');
    if (dot != only.npos) selection = SelectLayer(channels, only.substr(0, dot + 1));
  }
  const bool isWhole =
      count == 1 && channels.begin().channel().xSampling == 1 && channels.begin().channel().ySampling == 1;
  if (selection.names.empty() && isWhole) selection.names.push_back(only);
  return selection;
}

// A row that is compressed to nothing still has its share of a table of offsets, and no method compresses
// pixels better than a thousand times.
bool CanHold(std::size_t bytes, const Box2i& window, int channels) {
  const double width = 1.0 + window.max.x - window.min.x, height = 1.0 + window.max.y - window.min.y;
  const double capacity = 0x1p26 + 2048.0 * static_cast<double>(bytes);
  return width >= 1 && height >= 1 && width <= 0x1p24 && height <= 0x1p24 &&
         width * height * channels * sizeof(float) <= capacity;
}

int Width(const Box2i& window) { return window.max.x - window.min.x + 1; }
int Height(const Box2i& window) { return window.max.y - window.min.y + 1; }

// The data window's pixels, the top row first.
std::vector<float> ReadWindow(Imf::MultiPartInputFile& file, BytesIn& stream, const Selection& selection,
                              const Box2i& window) {
  const std::size_t channels = selection.names.size();
  const auto width = static_cast<std::size_t>(Width(window)),
             height = static_cast<std::size_t>(Height(window));
  std::vector<float> pixels(width * height * channels);
  if (selection.isLuminanceChroma) {
    std::vector<Imf::Rgba> colors(width * height);
    stream.seekg(0);
    Imf::RgbaInputFile rgba(stream);
    rgba.setFrameBuffer(colors.data() - window.min.x - window.min.y * static_cast<std::ptrdiff_t>(width), 1,
                        width);
    rgba.readPixels(window.min.y, window.max.y);
    for (std::size_t i = 0; i < colors.size(); ++i) {
      pixels[3 * i] = colors[i].r;
      pixels[3 * i + 1] = colors[i].g;
      pixels[3 * i + 2] = colors[i].b;
    }
    return pixels;
  }
  Imf::FrameBuffer frame;
  for (std::size_t c = 0; c < channels; ++c)
    frame.insert(selection.names[c],
                 Imf::Slice::Make(Imf::FLOAT, pixels.data() + c, window, channels * sizeof(float),
                                  width * channels * sizeof(float)));
  Imf::InputPart part(file, 0);
  part.setFrameBuffer(frame);
  part.readPixels(window.min.y, window.max.y);
  return pixels;
}

// Copies what the two windows share, upside down.
void PlaceWindow(const std::vector<float>& pixels, const Box2i& data, const Box2i& display,
                 ImageBuffer& image) {
  const int xBegin = std::max(data.min.x, display.min.x), xEnd = std::min(data.max.x, display.max.x) + 1;
  const int yBegin = std::max(data.min.y, display.min.y), yEnd = std::min(data.max.y, display.max.y) + 1;
  const auto place = [channels = image.channels](const Box2i& window, int x, int row) {
    return (static_cast<std::ptrdiff_t>(row) * Width(window) + x - window.min.x) * channels;
  };
  for (int y = yBegin; y < yEnd; ++y)
    std::copy_n(pixels.begin() + place(data, xBegin, y - data.min.y), (xEnd - xBegin) * image.channels,
                image.floatPixels.begin() + place(display, xBegin, display.max.y - y));
}

PictureProblem Decode(std::span<const std::uint8_t> bytes, ImageBuffer& image) {
  BytesIn stream(bytes);
  Imf::MultiPartInputFile file(stream, 0);
  const Imf::Header& header = file.header(0);
  if (header.hasType() && header.type().starts_with("deep")) return PictureProblem::kUnsupported;
  const Selection selection = SelectChannels(header.channels());
  if (selection.names.empty()) return PictureProblem::kUnsupported;
  const auto channels = static_cast<int>(selection.names.size());
  const Box2i data = header.dataWindow();
  const Box2i display = header.displayWindow().intersects(data) ? header.displayWindow() : data;
  if (!CanHold(bytes.size(), data, channels) || !CanHold(bytes.size(), display, channels))
    return PictureProblem::kDamaged;
  const std::vector<float> pixels = ReadWindow(file, stream, selection, data);
  Allocate(image, Width(display), Height(display), channels, 32, false);
  PlaceWindow(pixels, data, display, image);
  return PictureProblem::kSound;
}

bool FitsHalf(float value) { return !std::isfinite(value) || Imath::half(value).isFinite(); }

}  // namespace

bool IsExr(std::span<const std::uint8_t> bytes) {
  constexpr std::uint8_t kMagic[] = {0x76, 0x2f, 0x31, 0x01};
  return bytes.size() >= std::size(kMagic) && std::equal(std::begin(kMagic), std::end(kMagic), bytes.begin());
}

PictureProblem DecodeExr(std::span<const std::uint8_t> bytes, ImageBuffer& image) {
  try {
    return Decode(bytes, image);
  } catch (const std::bad_alloc&) {
    return PictureProblem::kNoMemory;
  } catch (const std::exception&) {
    return PictureProblem::kDamaged;
  }
}

std::string EncodeExr(const float* pixels, int width, int height, int channels) {
  const std::size_t count =
      static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * static_cast<std::size_t>(channels);
  const bool isHalf = std::all_of(pixels, pixels + count, FitsHalf);
  const std::vector<Imath::half> halves(pixels, pixels + (isHalf ? count : 0));
  const Imf::PixelType type = isHalf ? Imf::HALF : Imf::FLOAT;
  const std::size_t size = isHalf ? sizeof(Imath::half) : sizeof(float);
  const void* source = isHalf ? static_cast<const void*>(halves.data()) : pixels;
  char* base = static_cast<char*>(const_cast<void*>(source));  // only read

  Imf::Header header(width, height);
  header.compression() = Imf::PIZ_COMPRESSION;
  Imf::FrameBuffer frame;
  const std::size_t pixelSize = size * static_cast<std::size_t>(channels);
  for (int c = 0; c < channels; ++c) {
    const char name[] = {"RGBA"[c], '\0'};
    header.channels().insert(name, Imf::Channel(type));
    frame.insert(name, Imf::Slice(type, base + size * static_cast<std::size_t>(c), pixelSize,
                                  pixelSize * static_cast<std::size_t>(width)));
  }
  BytesOut stream;
  {  // the table of offsets is written in the end
    Imf::OutputFile file(stream, header, 0);
    file.setFrameBuffer(frame);
    file.writePixels(height);
  }
  return std::move(stream.bytes);
}

}  // namespace zp
