// Pictures from disk.

#include <algorithm>
#include <cmath>
#include <cstring>

#include "imaging/free_image.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

constexpr float kLargestPacked = 255.0f * 0x1p119f;

// Ward's shared-exponent pixel ("Real Pixels", Graphics Gems II, 1991). Components that it cannot express,
// negative or not a number, are 0; those too large take its largest value.
PackedPixel Pack(FIRGBF color) {
  const auto limit = [](float v) { return v > 0.0f ? std::min(v, kLargestPacked) : 0.0f; };
  const float r = limit(color.red), g = limit(color.green), b = limit(color.blue);
  const float largest = std::max({r, g, b});
  if (largest < 1e-32f) return {};
  int exponent = 0;
  const float scale = 256.0f * std::frexp(largest, &exponent) / largest;
  return {static_cast<std::uint8_t>(r * scale), static_cast<std::uint8_t>(g * scale),
          static_cast<std::uint8_t>(b * scale), static_cast<std::uint8_t>(exponent + 128)};
}

// Copies scan lines as they are, the bottom one first.
template <class Element>
void CopyLines(FIBITMAP* bitmap, std::vector<Element>& pixels, std::size_t rowElements) {
  const std::size_t rows = FreeImage_GetHeight(bitmap);
  for (std::size_t y = 0; y < rows; ++y)
    std::memcpy(pixels.data() + y * rowElements, FreeImage_GetScanLine(bitmap, static_cast<int>(y)),
                rowElements * sizeof(Element));
}

// 8, 24 and 32 bits a pixel; false for the other depths.
bool CopyIntegerBitmap(ImageBuffer& image, FIBITMAP* bitmap, int width, int height) {
  const unsigned sourceBytes = FreeImage_GetBPP(bitmap) / 8;
  if (sourceBytes != 1 && sourceBytes != 3 && sourceBytes != 4) return false;
  // Intended: the index of a palette picture is its grey level, whatever the palette says.
  const bool hasPalette = FreeImage_GetPalette(bitmap) != nullptr;
  const int channels = sourceBytes == 4 ? 4 : sourceBytes == 1 && !hasPalette ? 1 : 3;
  Allocate(image, width, height, channels, 8, false);
  if (channels == 1) {
    CopyLines(bitmap, image.bytePixels, static_cast<std::size_t>(width));
    return true;
  }
  std::uint8_t* out = image.bytePixels.data();
  for (int y = 0; y < height; ++y) {
    const BYTE* in = FreeImage_GetScanLine(bitmap, y);
    for (int x = 0; x < width; ++x, in += sourceBytes, out += channels) {
      out[0] = sourceBytes == 1 ? in[0] : in[FI_RGBA_RED];
      out[1] = sourceBytes == 1 ? in[0] : in[FI_RGBA_GREEN];
      out[2] = sourceBytes == 1 ? in[0] : in[FI_RGBA_BLUE];
      if (channels == 4) out[3] = in[FI_RGBA_ALPHA];
    }
  }
  return true;
}

void CopyPacked(ImageBuffer& image, FIBITMAP* bitmap, int width, int height) {
  Allocate(image, width, height, 3, 32, true);
  PackedPixel* out = image.packedPixels.data();
  for (int y = 0; y < height; ++y) {
    const auto* in = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(bitmap, y));
    for (int x = 0; x < width; ++x) *out++ = Pack(in[x]);
  }
}

bool CopyBitmap(ImageBuffer& image, FIBITMAP* bitmap) {
  const auto width = static_cast<int>(FreeImage_GetWidth(bitmap));
  const auto height = static_cast<int>(FreeImage_GetHeight(bitmap));
  if (width <= 0 || height <= 0 || FreeImage_HasPixels(bitmap) == 0) return false;
  const auto copy = [&](int channels, int bits, auto& pixels) {
    Allocate(image, width, height, channels, bits, false);
    CopyLines(bitmap, pixels, static_cast<std::size_t>(width) * static_cast<std::size_t>(channels));
    return true;
  };
  switch (FreeImage_GetImageType(bitmap)) {
    case FIT_BITMAP:
      return CopyIntegerBitmap(image, bitmap, width, height);
    case FIT_UINT16:
      return copy(1, 16, image.wordPixels);
    case FIT_RGB16:
      return copy(3, 16, image.wordPixels);
    case FIT_RGBA16:
      return copy(4, 16, image.wordPixels);
    case FIT_RGBF:
      if (!image.allowPacked) return copy(3, 32, image.floatPixels);
      CopyPacked(image, bitmap, width, height);
      return true;
    case FIT_RGBAF:
      return copy(4, 32, image.floatPixels);
    default:
      return false;
  }
}

}  // namespace

// The first row of the buffer is the bottom of the picture in every format, which the content tells and not
// the name. image.fileName is only read. A failure leaves the buffer unloaded: as it was, or, when memory
// does not suffice, without a size.
bool LoadImage(ImageBuffer& image, const std::string& path) {
  image.loaded = false;
  const SilentTiff silence;
  const FREE_IMAGE_FORMAT format = FreeImage_GetFileType(path.c_str(), 0);
  if (format == FIF_UNKNOWN || FreeImage_FIFSupportsReading(format) == 0) return false;
  const Bitmap bitmap(FreeImage_Load(format, path.c_str(), 0));
  if (!bitmap) return false;
  // FreeImage takes the first row of a PFM file for the top one, but the format starts at the bottom.
  if (format == FIF_PFM) FreeImage_FlipVertical(bitmap.get());
  try {
    image.loaded = CopyBitmap(image, bitmap.get());
  } catch (const std::bad_alloc&) {
    image.width = image.height = 0;
  }
  return image.loaded;
}

void StartImageFiles() { FreeImage_Initialise(0); }
void StopImageFiles() { FreeImage_DeInitialise(); }

}  // namespace zp
