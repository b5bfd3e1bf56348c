// Any bytes as pictures that fill a Part. Each picture: kind, channels, bits, width and height in a byte
// each, then its floats, as many as there are; a picture that the bytes end in may thus have too few.

#include <algorithm>
#include <cstring>

#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 5;
  constexpr zp::ArrayKind kKinds[] = {zp::ArrayKind::kPosition, zp::ArrayKind::kUv,
                                      zp::ArrayKind::kNormal,   zp::ArrayKind::kTangent,
                                      zp::ArrayKind::kTriangle, zp::ArrayKind::kParticle};
  constexpr int kBits[] = {32, 32, 32, 8, 16, 64};
  zp::ClearTables();
  zp::Part part;
  while (size >= kHeader) {
    zp::ImageBuffer image;
    const zp::ArrayKind kind = kKinds[data[0] % std::size(kKinds)];
    image.channels = data[1] % 6;
    image.bits = kBits[data[2] % std::size(kBits)];
    image.packed = data[2] >= 128;
    image.width = data[3];
    image.height = data[4];
    data += kHeader;
    size -= kHeader;
    const std::size_t wanted = static_cast<std::size_t>(image.channels) *
                               static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
    image.floatPixels.resize(std::min(wanted, size / sizeof(float)));
    if (!image.floatPixels.empty())
      std::memcpy(image.floatPixels.data(), data, image.floatPixels.size() * sizeof(float));
    data += image.floatPixels.size() * sizeof(float);
    size -= image.floatPixels.size() * sizeof(float);
    zp::AddArrayImage(kind, std::move(image), part);
  }
  for (const zp::Triangle& triangle : part.triangles)
    for (const std::uint32_t vertex : triangle.vertex) zp::Require(vertex < part.positions.size(), __LINE__);
  zp::RequirePrepared(part);
  return 0;
}
