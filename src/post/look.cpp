#include "post/look.h"

#include <algorithm>
#include <cmath>

#include "post/layer_image.h"

namespace zp {
namespace {

constexpr double kScreenWhite = 6504;  // kelvin, of the screen's white

using Matrix = std::array<std::array<double, 3>, 3>;
using Triple = std::array<double, 3>;

// IEC 61966-2-1: linear sRGB to CIE XYZ; and its inverse.
constexpr Matrix kToXyz = {{{0.4124564, 0.3575761, 0.1804375},
                            {0.2126729, 0.7151522, 0.0721750},
                            {0.0193339, 0.1191920, 0.9503041}}};
constexpr Matrix kFromXyz = {{{3.2404542, -1.5371385, -0.4985314},
                              {-0.9692660, 1.8760108, 0.0415560},
                              {0.0556434, -0.2040259, 1.0572252}}};
// The cone responses of Bradford (Lam, 1985), and their inverse.
constexpr Matrix kToCones = {
    {{0.8951, 0.2664, -0.1614}, {-0.7502, 1.7135, 0.0367}, {0.0389, -0.0685, 1.0296}}};
constexpr Matrix kFromCones = {{{0.9869929, -0.1470543, 0.1599627},
                                {0.4323053, 0.5183603, 0.0492912},
                                {-0.0085287, 0.0400428, 0.9684867}}};

Matrix operator*(const Matrix& a, const Matrix& b) {
  Matrix product = {};
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j)
      for (std::size_t k = 0; k < 3; ++k) product[i][j] += a[i][k] * b[k][j];
  return product;
}

// By their chromaticity x, y.
Triple XyzOf(double x, double y) { return {x / y, 1, (1 - x - y) / y}; }

// A black body's light: Kim and others, "Design of Advanced Color Temperature Control System for HDTV
// Applications", 2002.
Triple BlackBody(double kelvin) {
  const double u = 1000 / kelvin;
  const double x = kelvin < 4000 ? ((-0.2661239 * u - 0.2343589) * u + 0.8776956) * u + 0.179910
                                 : ((-3.0258469 * u + 2.1070379) * u + 0.2226347) * u + 0.240390;
  const double y = kelvin < 2222   ? ((-1.1063814 * x - 1.34811020) * x + 2.18555832) * x - 0.20219683
                   : kelvin < 4000 ? ((-0.9549476 * x - 1.37418593) * x + 2.09137015) * x - 0.16748867
                                   : ((3.0817580 * x - 5.87338670) * x + 3.75112997) * x - 0.37001483;
  return XyzOf(x, y);
}

// CIE 15, for 4000 K and above.
Triple Daylight(double kelvin) {
  const double u = 1000 / kelvin;
  const double x = kelvin < 7000 ? ((-4.6070 * u + 2.9678) * u + 0.09911) * u + 0.244063
                                 : ((-2.0064 * u + 1.9018) * u + 0.24748) * u + 0.237040;
  return XyzOf(x, (-3 * x + 2.870) * x - 0.275);
}

// Lamps are black bodies, and from 5000 K on light is the day's.
Triple LightOf(double kelvin) {
  if (kelvin < 4000) return BlackBody(kelvin);
  const double share = std::min((kelvin - 4000) / 1000, 1.0);
  const Triple lamp = BlackBody(kelvin), day = Daylight(kelvin);
  Triple light = {};
  for (std::size_t i = 0; i < 3; ++i) light[i] = lamp[i] + share * (day[i] - lamp[i]);
  return light;
}

double ConeOf(std::size_t cone, const Triple& light) {
  return kToCones[cone][0] * light[0] + kToCones[cone][1] * light[1] + kToCones[cone][2] * light[2];
}

// Narkowicz, "ACES Filmic Tone Mapping Curve", 2016, with its exposure.
float Filmic(float light) {
  const float x = 0.6f * std::max(light, 0.0f);
  if (!std::isfinite(x)) return 1;
  return x * (2.51f * x + 0.03f) / (x * (2.43f * x + 0.59f) + 0.14f);
}

}  // namespace

Mat3 WhiteBalance(double kelvin) {
  const Triple from = LightOf(std::clamp(kelvin, kWarmest, kColdest)), to = LightOf(kScreenWhite);
  Matrix scale = {};
  for (std::size_t i = 0; i < 3; ++i) scale[i][i] = ConeOf(i, to) / ConeOf(i, from);
  const Matrix all = kFromXyz * kFromCones * scale * kToCones * kToXyz;
  Mat3 result;
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j) result.m[i][j] = static_cast<float>(all[i][j]);
  return result;
}

ImageBuffer LookAt(const LayeredPicture& picture, const Layer& layer, const Look& look) {
  ImageBuffer image = MakeImage(picture, layer);
  const double scale = std::exp2(look.exposure);
  const Mat3 balance = look.whiteBalance ? WhiteBalance(*look.whiteBalance) : Mat3();
  const bool isFilmic = look.curve == Curve::kFilmic;
  if (!look.whiteBalance && !isFilmic) return ScreenPicture(image, {scale, scale, scale});
  for (std::size_t i = 0; i < image.floatPixels.size(); i += 3) {
    float* color = image.floatPixels.data() + i;
    const Vec3 light = balance * (static_cast<float>(scale) * Vec3{color[0], color[1], color[2]});
    for (int c = 0; c < 3; ++c) color[c] = isFilmic ? Filmic(light[c]) : light[c];
  }
  return ScreenPicture(image, {1, 1, 1});
}

}  // namespace zp
