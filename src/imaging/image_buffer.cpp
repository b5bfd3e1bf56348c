// imaging/image_buffer.cpp: pixels in memory, one at a time.

#include <cmath>
#include <new>
#include <type_traits>

#include "core/settings.h"
#include "core/tables.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

constexpr float kByteScale = 1.0f / 255.0f;

// Format 1 takes 16 bits for 8.
float WordScale() { return settings.format >= 2 ? 1.0f / 65535.0f : kByteScale; }

// Stored so that 1 is the largest value: truncated, limited at both ends. Not a number is 0.
template <class Integer>
Integer Quantize(float value, float largest) {
  if (value >= 1.0f) return static_cast<Integer>(largest);
  if (!(value >= 0.0f)) return 0;
  return static_cast<Integer>(value * largest);
}

// A pixel whose components `get(element)` tells, of a picture with `size` elements. A single channel is given
// three times.
template <class Get>
Vec3 Components(std::size_t size, std::size_t pixel, int channels, Get get) {
  if (channels >= 3) {
    const std::size_t element = pixel * static_cast<std::size_t>(channels);
    if (size < 3 || element > size - 3) return kBlack;
    return {get(element), get(element + 1), get(element + 2)};
  }
  if (channels != 1 || pixel >= size) return kBlack;
  const float grey = get(pixel);
  return {grey, grey, grey};
}

Vec3 ReadPacked(const ImageBuffer& image, std::size_t pixel) {
  if (pixel >= image.packedPixels.size()) return kBlack;
  const PackedPixel p = image.packedPixels[pixel];
  if (p.exponent == 0) return kBlack;
  const double scale = exponentTable[p.exponent];
  return {static_cast<float>(p.r * scale), static_cast<float>(p.g * scale), static_cast<float>(p.b * scale)};
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
  image.wordScale = WordScale();
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

// A pixel that the picture does not have is black, and so is every pixel of a picture with two channels.
Vec3 ReadPixel(const ImageBuffer& image, std::size_t pixel) {
  if (image.packed) return ReadPacked(image, pixel);
  const auto components = [&](std::size_t size, auto get) {
    return Components(size, pixel, image.channels, get);
  };
  switch (image.bits) {
    case 1:
      return components(image.bitPixels.size() * 32, [bits = image.bitPixels.data()](std::size_t i) {
        return (bits[i / 32] >> (i % 32) & 1U) != 0 ? 1.0f : 0.0f;
      });
    case 8:
      return components(image.bytePixels.size(), [bytes = image.bytePixels.data()](std::size_t i) {
        return static_cast<float>(bytes[i]) * kByteScale;
      });
    case 16:
      return components(image.wordPixels.size(),
                        [words = image.wordPixels.data(), scale = image.wordScale](std::size_t i) {
                          return static_cast<float>(words[i]) * scale;
                        });
    case 32:
      return components(image.floatPixels.size(),
                        [floats = image.floatPixels.data()](std::size_t i) { return floats[i]; });
    case 64:
      return components(image.doublePixels.size(), [doubles = image.doublePixels.data()](std::size_t i) {
        return static_cast<float>(doubles[i]);
      });
    default:
      return kBlack;
  }
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
