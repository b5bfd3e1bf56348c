// Any bytes as a picture file of any format. Its corpus is made by picture_corpus.cpp.

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz.h"
#include "imaging/imaging.h"

namespace {

// A file without a name.
struct File {
  int number = memfd_create("input", MFD_CLOEXEC);
  std::string path = "/proc/self/fd/" + std::to_string(number);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const File file;
  [[maybe_unused]] static const bool started = [] {
    zp::StartImageFiles();
    return true;
  }();
  zp::Require(ftruncate(file.number, 0) == 0, __LINE__);
  zp::Require(pwrite(file.number, data, size, 0) == static_cast<ssize_t>(size), __LINE__);
  for (const bool allowPacked : {true, false}) {
    zp::ImageBuffer image;
    image.allowPacked = allowPacked;
    const bool loaded = zp::LoadImage(image, file.path);
    zp::Require(loaded == (image.problem == zp::PictureProblem::kSound), __LINE__);
    if (!loaded) return 0;
    zp::Require(image.width > 0 && image.height > 0, __LINE__);
    const auto pixels = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
    const std::size_t bytes = image.packed ? 4 : static_cast<std::size_t>(image.channels * image.bits / 8);
    zp::Require(zp::PixelBytes(image) == pixels * bytes, __LINE__);
    zp::ReadPixel(image, pixels - 1);
    if (!image.packed || image.bits != 32) return 0;
  }
  return 0;
}
