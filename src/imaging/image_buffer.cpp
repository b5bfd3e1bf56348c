// imaging/image_buffer.cpp: pixels in memory, one at a time.

#include <cmath>
#include <new>
#include <type_traits>

#include "core/tables.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

constexpr float kByteScale = 1.0f / 255.0f;

// Stored so that 1 is the largest value: truncated, limited at both ends. Not a number is 0.
template <class Integer>
Integer Quantize(float value, float largest) {
  if (value >= 1.0f) return static_cast<Integer>(largest);
  if (!(value >= 0.0f)) return 0;
  return static_cast<Integer>(value * largest);
}

// One component as a float; what lies past the end of the pixels is 0.
float Component(const ImageBuffer& image, std::size_t element) {
  switch (image.bits) {
    case 1: {
      const std::size_t word = element / 32;
      return word < image.bitPixels.size() && (image.bitPixels[word] >> (element % 32) & 1U) != 0 ? 1.0f
                                                                                                  : 0.0f;
    }
    case 8:
      return element < image.bytePixels.size() ? static_cast<float>(image.bytePixels[element]) * kByteScale
                                               : 0.0f;
    case 16:
      return element < image.wordPixels.size() ? static_cast<float>(image.wordPixels[element]) * kByteScale
                                               : 0.0f;
    case 32:
      return element < image.floatPixels.size() ? image.floatPixels[element] : 0.0f;
    case 64:
      return element < image.doublePixels.size() ? static_cast<float>(image.doublePixels[element]) : 0.0f;
    default:
      return 0;
  }
}

std::size_t ElementCount(int width, int height, int channels) {
  std::size_t count = 0;
  if (__builtin_mul_overflow(static_cast<std::size_t>(width), static_cast<std::size_t>(height), &count) ||
      __builtin_mul_overflow(count, static_cast<std::size_t>(channels), &count) ||
      count > SIZE_MAX / (4 * sizeof(double)))
    throw std::bad_alloc();
  return count;
}

// Drops the storage of all arrays but the one that the format chooses.
void DropUnused(ImageBuffer& image) {
  const auto drop = [](auto& pixels) { std::remove_reference_t<decltype(pixels)>().swap(pixels); };
  if (image.packed || image.bits != 1) drop(image.bitPixels);
  if (image.packed || image.bits != 8) drop(image.bytePixels);
  if (image.packed || image.bits != 16) drop(image.wordPixels);
  if (image.packed || image.bits != 32) drop(image.floatPixels);
  if (image.packed || image.bits != 64) drop(image.doublePixels);
  if (!image.packed) drop(image.packedPixels);
}

}  // namespace

// Packed pixels that were there before stay as they are. Throws std::bad_alloc when memory does not suffice;
// the picture then has the new format and no pixels.
void Allocate(ImageBuffer& image, int width, int height, int channels, int bits, bool packed) {
  image.loaded = false;
  if (width <= 0 || height <= 0 || channels <= 0 || bits <= 0) return;
  image.width = width;
  image.height = height;
  image.channels = channels;
  image.bits = bits;
  image.packed = packed;
  DropUnused(image);
  if (packed) {
    image.packedPixels.resize(ElementCount(width, height, 1));
    return;
  }
  const auto clear = [](auto& pixels, std::size_t size) {
    pixels.clear();
    pixels.resize(size);
  };
  const std::size_t count = ElementCount(width, height, channels);
  if (bits == 1) clear(image.bitPixels, (count + 31) / 32);
  if (bits == 8) clear(image.bytePixels, count);
  if (bits == 16) clear(image.wordPixels, count);
  if (bits == 32) clear(image.floatPixels, count);
  if (bits == 64) clear(image.doublePixels, count);
}

// A single channel is given three times. A pixel that the picture does not have is black, and so is every
// pixel of a picture with two channels.
Vec3 ReadPixel(const ImageBuffer& image, std::size_t pixel) {
  if (image.packed) {
    if (pixel >= image.packedPixels.size()) return kBlack;
    const PackedPixel p = image.packedPixels[pixel];
    if (p.exponent == 0) return kBlack;
    const double scale = exponentTable[p.exponent];
    return {static_cast<float>(p.r * scale), static_cast<float>(p.g * scale),
            static_cast<float>(p.b * scale)};
  }
  if (image.channels >= 3) {
    const std::size_t element = pixel * static_cast<std::size_t>(image.channels);
    return {Component(image, element), Component(image, element + 1), Component(image, element + 2)};
  }
  if (image.channels == 1) {
    const float grey = Component(image, pixel);
    return {grey, grey, grey};
  }
  return kBlack;
}

// Integer components are limited to 0 to 1 and truncated; a picture of fewer than three channels takes the
// colour's first components. A fourth component stays as it is.
void WritePixel(ImageBuffer& image, Vec3 color, std::size_t pixel) {
  if (image.packed || image.channels <= 0) return;
  const auto channels = static_cast<std::size_t>(image.channels);
  const auto store = [&](auto& pixels, auto convert) {
    if (pixel >= pixels.size() / channels) return;
    const std::size_t element = pixel * channels;
    for (std::size_t c = 0; c < channels && c < 3; ++c)
      pixels[element + c] = convert(color[static_cast<int>(c)]);
  };
  if (image.bits == 8) store(image.bytePixels, [](float v) { return Quantize<std::uint8_t>(v, 255.0f); });
  if (image.bits == 16) store(image.wordPixels, [](float v) { return Quantize<std::uint16_t>(v, 65535.0f); });
  if (image.bits == 32) store(image.floatPixels, [](float v) { return v; });
  if (image.bits == 64) store(image.doublePixels, [](float v) { return static_cast<double>(v); });
}

std::size_t PixelBytes(const ImageBuffer& image) {
  const auto bytes = [](const auto& pixels) { return pixels.size() * sizeof(pixels[0]); };
  return bytes(image.bitPixels) + bytes(image.bytePixels) + bytes(image.wordPixels) +
         bytes(image.floatPixels) + bytes(image.doublePixels) + bytes(image.packedPixels);
}

}  // namespace zp
