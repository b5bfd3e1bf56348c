// app/view_command.cpp: a linear picture becomes a PNG for the screen.

#include <cmath>

#include "commands.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// The curve of sRGB, IEC 61966-2-1, of linear light; not-a-number and negative light are black.
std::uint8_t EncodeSrgb(double linear) {
  if (!(linear > 0)) return 0;
  if (linear >= 1) return 255;
  const double encoded = linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
  return static_cast<std::uint8_t>(std::lround(255 * encoded));
}

// Reads any picture, its bottom row first.
bool ReadPicture(const fs::path& path, ImageBuffer& image) {
  // File names choose formats wherever in them an extension stands, folders included: enter the folder, so
  // that only the file's own name counts.
  DirectoryVisit visit;
  if (visit.Enter(path.parent_path())) return false;
  image.fileName = path.filename().string();
  image.allowPacked = false;
  return LoadImage(image, image.fileName) && image.width > 0 && image.height > 0;
}

int Convert(const ViewOptions& options) {
  ImageBuffer linear;
  if (!ReadPicture(options.input, linear))
    return Fail("there is no picture to read in '" + options.input + "'");

  // A 16-bit component reads 257 where it is full.
  const double scale = std::exp2(options.exposure) / (linear.bits == 16 ? 257.0 : 1.0);
  const auto width = static_cast<std::size_t>(linear.width);
  const auto height = static_cast<std::size_t>(linear.height);
  ImageBuffer screen;
  Allocate(screen, linear.width, linear.height, 3, 8, false);
  for (std::size_t y = 0; y < height; y++) {
    const std::size_t source = (height - 1 - y) * width;
    std::uint8_t* bytes = &screen.bytePixels[y * width * 3];
    for (std::size_t x = 0; x < width; x++) {
      const Vec3 color = ReadPixel(linear, source + x);
      for (int c = 0; c < 3; c++) *bytes++ = EncodeSrgb(scale * static_cast<double>(color[c]));
    }
  }
  screen.fileName = options.output;
  const std::string reason = StoreImage(screen, ".png");  // not by the name: "a.hdr.png" is two
  return reason.empty() ? kExitDone : Fail("cannot write the picture '" + options.output + "': " + reason);
}

}  // namespace

int RunView(const ViewOptions& options) {
  StartImageFiles();
  const int status = Convert(options);
  StopImageFiles();
  return status;
}

}  // namespace zp
