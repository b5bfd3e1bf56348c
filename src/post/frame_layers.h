// post/frame_layers.h: the layers of a frame, made of its AOVs (imaging/frame_layers.h).

#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "imaging/imaging.h"
#include "post/layers.h"

namespace zp {

// A frame, as it stands.
struct FrameSource {
  std::vector<const Aov*> aovs;                     // the first is the beauty image
  std::function<ImageBuffer(std::size_t)> picture;  // of one of them, of the whole frame, finished
  std::function<std::uint32_t(int, int)> samples;   // of the pixel at (x, y)
  PixelWindow display, region;                      // all pixels; those that are rendered
  bool floats = false;                              // 32 bits for all layers
  // Of the half sets of passes, where they are kept apart: "half0", "half1", "variance"; and a pixel of one.
  std::vector<std::string> halfLayers = {};
  std::function<Vec3(int, int, int)> half = {};
};

// The beauty with its alpha, which is the share of the samples that hit anything, and every AOV that is named
// as a layer, all of the region. Means over hits are infinite for the depth of a pixel without any, else 0.
LayeredPicture MakeFrameLayers(const FrameSource& frame);
// One of them, alone, in three channels.
LayeredPicture MakeFrameLayer(const FrameSource& frame, std::size_t aov);

}  // namespace zp
