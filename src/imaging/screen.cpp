// imaging/screen.cpp: linear light as screens take it.

#include <cmath>

#include "imaging/imaging.h"

namespace zp {
namespace {

// The curve of sRGB, IEC 61966-2-1, of linear light; not-a-number and negative light are black.
std::uint8_t EncodeSrgb(double linear) {
  if (!(linear > 0)) return 0;
  if (linear >= 1) return 255;
  const double encoded = linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
  return static_cast<std::uint8_t>(std::lround(255 * encoded));
}

}  // namespace

float DecodeSrgb(float encoded) {
  return encoded <= 0.04045f ? encoded / 12.92f : std::pow((encoded + 0.055f) / 1.055f, 2.4f);
}

ImageBuffer ScreenPicture(const ImageBuffer& linear, const std::array<double, 3>& exposure) {
  ImageBuffer screen;
  Allocate(screen, linear.width, linear.height, 3, 8, false);
  screen.fileName = linear.fileName;
  for (std::size_t byte = 0; byte < screen.bytePixels.size(); byte += 3) {
    const Vec3 color = ReadPixel(linear, byte / 3);
    for (int c = 0; c < 3; ++c) {
      const auto i = static_cast<std::size_t>(c);
      screen.bytePixels[byte + i] = EncodeSrgb(exposure[i] * static_cast<double>(color[c]));
    }
  }
  return screen;
}

}  // namespace zp
