#include "post/layers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <utility>

#include "core/files.h"
#include "core/stop.h"
#include "imaging/exr_file.h"
#include "imaging/imaging.h"
#include "imaging/output_file.h"
#include "post/exr_layers.h"
#include "post/layer_image.h"

namespace zp {
namespace {

bool IsExrName(const std::string& path) {
  const std::string extension = std::filesystem::path(path).extension().string();
  return extension == ".exr" || extension == ".EXR";
}

struct MappedFile {
  std::vector<std::uint8_t> bytes;
  PictureProblem problem = PictureProblem::kSound;
};

// The whole file if it starts as OpenEXR files do, else its first bytes.
MappedFile ReadIfExr(const std::string& path) {
  MappedFile result;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) {
    const bool missing = errno == ENOENT || errno == ENOTDIR;
    return {{}, missing ? PictureProblem::kMissing : PictureProblem::kUnreadable};
  }
  struct stat status = {};
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) result.problem = PictureProblem::kUnreadable;
  constexpr std::size_t kBlock = std::size_t{1} << 24;
  std::size_t wanted = std::min<std::size_t>(4, static_cast<std::size_t>(status.st_size));
  while (result.problem == PictureProblem::kSound && result.bytes.size() < wanted && !Stopping()) {
    const std::size_t at = result.bytes.size();
    result.bytes.resize(std::min(wanted, at + kBlock));
    const ssize_t got = read(file, result.bytes.data() + at, result.bytes.size() - at);
    result.bytes.resize(at + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && errno != EINTR) result.problem = PictureProblem::kUnreadable;
    if (got == 0) break;  // it has become shorter
    if (at == 0 && IsExr(result.bytes)) {
      wanted = static_cast<std::size_t>(status.st_size);
      result.bytes.reserve(wanted);
    }
  }
  close(file);
  return result;
}

// Component `i` of a picture that is not packed.
float Element(const ImageBuffer& image, std::size_t i) {
  if (image.bits == 8) return static_cast<float>(image.bytePixels[i]) / 255;
  if (image.bits == 16) return static_cast<float>(image.wordPixels[i]) / 65535;
  return image.floatPixels[i];
}

// The only layer of a picture whose bottom row comes first.
void TakeImage(const ImageBuffer& image, LayeredPicture& picture) {
  static const std::vector<std::string> kNames[] = {{"Y"}, {"R", "G", "B"}, {"R", "G", "B", "A"}};
  picture.data = picture.display = {0, 0, image.width, image.height};
  picture.isEncoded = image.bits < 32;
  Layer layer = {"", kNames[image.channels == 1 ? 0 : image.channels - 2], LayerKind::kFloat, {}};
  const std::size_t row = static_cast<std::size_t>(image.width) * layer.channels.size();
  layer.numbers.reserve(row * static_cast<std::size_t>(image.height));
  for (auto y = static_cast<std::size_t>(image.height); y-- > 0;)
    for (std::size_t i = y * row; i < (y + 1) * row; ++i) layer.numbers.push_back(Element(image, i));
  picture.layers.push_back(std::move(layer));
}

std::string ReadImage(const std::string& path, LayeredPicture& picture) {
  const auto image = std::make_unique<ImageBuffer>();
  image->allowPacked = false;
  if (!LoadImage(*image, path)) return "it " + std::string(ProblemText(image->problem));
  TakeImage(*image, picture);
  return {};
}

// The layer that a file of one picture holds; null if it cannot be told.
const Layer* MainLayer(const LayeredPicture& picture) {
  if (picture.layers.size() == 1) return &picture.layers.front();
  return FindLayer(picture, "");
}

ImageBuffer RoundToBytes(const ImageBuffer& image) {
  ImageBuffer bytes;
  Allocate(bytes, image.width, image.height, image.channels, 8, false);
  std::transform(image.floatPixels.begin(), image.floatPixels.end(), bytes.bytePixels.begin(), [](float v) {
    return static_cast<std::uint8_t>(std::lround(255 * (v > 0 ? std::min(v, 1.0f) : 0.0f)));
  });
  return bytes;
}

std::string WriteImage(const std::string& path, const LayeredPicture& picture) {
  const Layer* layer = MainLayer(picture);
  if (layer == nullptr) return "such a file holds one picture, and none of the layers is the beauty";
  const std::string extension = std::filesystem::path(path).extension().string();
  const bool keepsBytes = KeepsBytes(extension);
  ImageBuffer image;
  if (picture.isEncoded && !keepsBytes) {
    LayeredPicture linear = {picture.display, picture.data, {*layer}, {}, true};
    MakeLinear(linear);
    image = MakeImage(linear, linear.layers.front());
  } else {
    image = MakeImage(picture, *layer);
  }
  if (keepsBytes) image = picture.isEncoded ? RoundToBytes(image) : ScreenPicture(image, {1, 1, 1});
  image.fileName = path;
  return StoreImage(image, extension);  // not by the name: "a.hdr.png" is two
}

std::string WriteExr(const std::string& path, const LayeredPicture& picture, std::size_t& held,
                     bool evenStopped) {
  OutputFile file;
  if (std::string reason = file.Open(path); !reason.empty()) return reason;
  std::string failure;
  try {
    held = EncodeLayers(picture, file, evenStopped);
  } catch (const std::bad_alloc&) {
    return "not enough memory";
  } catch (const std::exception& error) {
    failure = error.what();
  }
  if (std::string reason = file.Trouble(); !reason.empty()) return reason;  // the cause of the other
  return failure.empty() ? file.Commit() : failure;
}

}  // namespace

ImageBuffer MakeImage(const LayeredPicture& picture, const Layer& layer) {
  constexpr double kMostPixels = 0x1p28;  // a file claims what it likes around the pixels that it has
  if (double{1} * picture.display.Width() * picture.display.Height() > kMostPixels) throw std::bad_alloc();
  ImageBuffer image;
  Allocate(image, picture.display.Width(), picture.display.Height(), 3, 32, false);
  const std::size_t channels = layer.channels.size();
  const PixelWindow &data = picture.data, &display = picture.display;
  const auto place = [](const PixelWindow& window, std::int32_t x, std::int32_t y) {
    return static_cast<std::size_t>(y - window.top) * static_cast<std::size_t>(window.Width()) +
           static_cast<std::size_t>(x - window.left);
  };
  for (std::int32_t y = std::max(data.top, display.top); y < std::min(data.bottom, display.bottom); ++y)
    for (std::int32_t x = std::max(data.left, display.left); x < std::min(data.right, display.right); ++x)
      for (std::size_t c = 0; c < 3; ++c) {
        const std::size_t from = channels * place(data, x, y), channel = channels == 1 ? 0 : c;
        if (channel < channels)
          image.floatPixels[3 * place(display, x, y) + c] = layer.numbers[from + channel];
      }
  return image;
}

std::string ChannelName(const Layer& layer, std::size_t channel) {
  const std::string& name = layer.channels[channel];
  const bool standsBare = layer.name.empty() || (layer.channels.size() == 1 && name == layer.name);
  return standsBare ? name : layer.name + "." + name;
}

std::size_t PixelCount(const LayeredPicture& picture) {
  return static_cast<std::size_t>(picture.data.Width()) * static_cast<std::size_t>(picture.data.Height());
}

const Layer* FindLayer(const LayeredPicture& picture, std::string_view name) {
  const auto found = std::find_if(picture.layers.begin(), picture.layers.end(),
                                  [name](const Layer& layer) { return layer.name == name; });
  return found == picture.layers.end() ? nullptr : &*found;
}

Layer* FindLayer(LayeredPicture& picture, std::string_view name) {
  return const_cast<Layer*>(FindLayer(std::as_const(picture), name));
}

int FindChannel(const Layer& layer, std::string_view channel) {
  const auto found = std::find(layer.channels.begin(), layer.channels.end(), channel);
  return found == layer.channels.end() ? -1 : static_cast<int>(found - layer.channels.begin());
}

void SetAttribute(LayeredPicture& picture, std::string name, AttributeValue value) {
  for (Attribute& attribute : picture.attributes)
    if (attribute.name == name) {
      attribute.value = std::move(value);
      return;
    }
  picture.attributes.push_back({std::move(name), std::move(value)});
}

const AttributeValue* FindAttribute(const LayeredPicture& picture, std::string_view name) {
  for (const Attribute& attribute : picture.attributes)
    if (attribute.name == name) return &attribute.value;
  return nullptr;
}

void MakeLinear(LayeredPicture& picture) {
  if (!picture.isEncoded) return;
  picture.isEncoded = false;
  for (Layer& layer : picture.layers)
    for (std::size_t i = 0; i < layer.numbers.size(); ++i)
      if (layer.channels[i % layer.channels.size()] != "A") layer.numbers[i] = DecodeSrgb(layer.numbers[i]);
}

std::string WriteLayers(const std::string& path, const LayeredPicture& picture, std::size_t* held,
                        bool evenStopped) {
  std::size_t count = 0;
  std::string reason;
  try {
    if (!IsExrName(path)) return WriteImage(path, picture);
    if (!picture.isEncoded) {
      reason = WriteExr(path, picture, count, evenStopped);
    } else {
      LayeredPicture linear = picture;
      MakeLinear(linear);
      reason = WriteExr(path, linear, count, evenStopped);
    }
  } catch (const std::exception& error) {  // a path that the system refuses, or no memory
    return error.what();
  }
  if (held != nullptr) *held = count;
  return reason;
}

std::string ReadLayers(const std::string& path, LayeredPicture& picture) {
  const auto failed = [](PictureProblem problem) { return "it " + std::string(ProblemText(problem)); };
  picture = {};
  try {
    NoteRead(path);
    const MappedFile file = ReadIfExr(path);
    if (file.problem != PictureProblem::kSound) return failed(file.problem);
    if (Stopping()) return failed(PictureProblem::kStopped);
    if (!IsExr(file.bytes)) return ReadImage(path, picture);
    picture = DecodeLayers(file.bytes);
    return {};
  } catch (const std::bad_alloc&) {
    return failed(PictureProblem::kNoMemory);
  } catch (const std::invalid_argument&) {
    return failed(PictureProblem::kUnsupported);
  } catch (const std::exception&) {
    return failed(Stopping() ? PictureProblem::kStopped : PictureProblem::kDamaged);
  }
}

}  // namespace zp
