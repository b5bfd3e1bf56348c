// Any bytes as a file of layers: what is read is well formed, and comes back from what is written of it. Its
// corpus is made by picture_corpus.cpp.

#include "post/layers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "fuzz.h"
#include "imaging/exr_file.h"

namespace {

using zp::Require;

// A file without a name to read from, and one to write to.
struct Files {
  int number = memfd_create("input", MFD_CLOEXEC);
  std::string input = "/proc/self/fd/" + std::to_string(number);
  std::string output =
      (std::filesystem::temp_directory_path() / ("zp_fuzz_layers" + std::to_string(getpid()) + ".exr"))
          .string();
  ~Files() { std::filesystem::remove(output); }
};

void RequireWellFormed(const zp::LayeredPicture& picture) {
  Require(!picture.layers.empty() && picture.data.Width() > 0 && picture.data.Height() > 0, __LINE__);
  for (const zp::Layer& layer : picture.layers) {
    Require(!layer.channels.empty(), __LINE__);
    Require(layer.numbers.size() == layer.channels.size() * zp::PixelCount(picture), __LINE__);
  }
}

// Whole numbers beyond 2^24 and halves that are infinite are held on the way.
void RequireSame(const zp::LayeredPicture& a, const zp::LayeredPicture& b) {
  Require(a.data == b.data && a.layers.size() == b.layers.size(), __LINE__);
  for (const zp::Layer& layer : a.layers) {
    const zp::Layer* other = zp::FindLayer(b, layer.name);
    Require(other != nullptr && other->kind == layer.kind && other->channels == layer.channels, __LINE__);
    if (layer.kind == zp::LayerKind::kFloat || layer.kind == zp::LayerKind::kId)
      Require(std::memcmp(layer.numbers.data(), other->numbers.data(), 4 * layer.numbers.size()) == 0,
              __LINE__);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Files files;
  Require(ftruncate(files.number, 0) == 0, __LINE__);
  Require(pwrite(files.number, data, size, 0) == static_cast<ssize_t>(size), __LINE__);
  if (!zp::IsExr({data, size})) return 0;  // a picture of another format, as zp_fuzz_picture reads it
  zp::LayeredPicture picture;
  const std::string reason = zp::ReadLayers(files.input, picture);
  Require(reason.empty() != picture.layers.empty(), __LINE__);
  if (!reason.empty()) return 0;
  RequireWellFormed(picture);
  constexpr std::size_t kMostPixels = 1 << 16;
  zp::LayeredPicture back;
  if (zp::PixelCount(picture) > kMostPixels || !zp::WriteLayers(files.output, picture).empty()) return 0;
  Require(zp::ReadLayers(files.output, back).empty(), __LINE__);
  RequireSame(picture, back);
  return 0;
}
