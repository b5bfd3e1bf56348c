// imaging/exr_file.h: OpenEXR files, from and to memory.

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "imaging/imaging.h"

namespace zp {

bool IsExr(std::span<const std::uint8_t> bytes);

// Any file of flat pixels, of half, float or integer channels, as floats whose first row is the bottom one.
// The picture is the display window; where the file has no pixels it is black. A luminance, or a single
// channel of whatever name, makes one channel. Of several layers, or parts, the first.
PictureProblem DecodeExr(std::span<const std::uint8_t> bytes, ImageBuffer& image);

// The file's bytes for `height` rows of `width` pixels of `channels` floats, the top row first: 3 are RGB, 4
// RGBA. Half floats, or 32 bits for the whole file once a finite number is beyond what a half holds. Throws
// std::exception when memory does not suffice.
std::string EncodeExr(const float* pixels, int width, int height, int channels);

}  // namespace zp
