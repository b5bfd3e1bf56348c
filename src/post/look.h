// post/look.h: how a layer looks on a screen.

#pragma once

#include <optional>
#include <string>

#include "imaging/imaging.h"
#include "post/layers.h"

namespace zp {

enum class Curve { kSrgb, kFilmic };

struct Look {
  double exposure = 0;                 // stops
  std::optional<double> whiteBalance;  // kelvin: the colour of light that shall be white
  Curve curve = Curve::kSrgb;          // of what is brighter than white: cut, or rolled off as film does
};
inline constexpr double kColdest = 25000, kWarmest = 1667;  // kelvin, of what whiteBalance takes

// The matrix of linear RGB that makes light of this temperature white; of 6504 K it changes nothing.
Mat3 WhiteBalance(double kelvin);

// The layer in 8 bits over the display window, the top row first: one channel is grey, and of four the last
// shows in nothing.
ImageBuffer LookAt(const LayeredPicture& picture, const Layer& layer, const Look& look);

}  // namespace zp
