#include "lights/sky_map.h"

#include <algorithm>
#include <cmath>

#include "core/tables.h"

namespace zp {
namespace {

// Sums of a few of these stay finite.
constexpr float kLargestRadiance = 1e30f;

float Finite(float x) { return std::isnan(x) ? 0.0f : std::clamp(x, -kLargestRadiance, kLargestRadiance); }

// In single precision what ReadPixel does in double: a byte times a power of two is exact.
Vec3 Unpack(PackedPixel p) {
  if (p.exponent == 0) return kBlack;
  const float scale = static_cast<float>(exponentTable[p.exponent]);
  return {static_cast<float>(p.r) * scale, static_cast<float>(p.g) * scale, static_cast<float>(p.b) * scale};
}

Vec3 Mix(Vec3 a, Vec3 b, float t) { return a + t * (b - a); }

struct Corners {
  std::size_t lowerLeft, lowerRight, upperLeft, upperRight;
  float fx, fy;
};

// `read` gives the colour of a texel by its index.
template <class Read>
Vec3 Blend(const Corners& c, Read read) {
  return Mix(Mix(read(c.lowerLeft), read(c.lowerRight), c.fx),
             Mix(read(c.upperLeft), read(c.upperRight), c.fx), c.fy);
}

bool IsDirection(Vec3 v) {
  const float square = Dot(v, v);
  return std::isfinite(square) && square > 1e-20f;
}

}  // namespace

SkyMap MakeSkyMap(const ImageBuffer& image) {
  SkyMap map;
  const std::size_t count = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
  if (image.packed) {
    // The largest exponents stand for numbers whose sums overflow.
    map.packed = image.packedPixels;
    map.packed.resize(count);
    for (PackedPixel& p : map.packed) p.exponent = std::min<std::uint8_t>(p.exponent, 228);
  } else {
    map.colors.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
      const Vec3 c = ReadPixel(image, i);
      map.colors[i] = {Finite(c.x), Finite(c.y), Finite(c.z)};
    }
  }
  map.width = image.width;
  map.height = image.height;
  return map;
}

bool MakeSkyFrame(Vec3 north, Vec3 zenith, SkyFrame& frame) {
  bool sound = IsDirection(north) && IsDirection(zenith);
  north = IsDirection(north) ? SafeNormalize(north) : Vec3{0, 1, 0};
  zenith = IsDirection(zenith) ? SafeNormalize(zenith) : Vec3{0, 0, 1};
  Vec3 east = Cross(north, zenith);
  if (Dot(east, east) < 1e-10f) {
    sound = false;
    east = Cross(north, Vec3{0, 0, 1});
    if (Dot(east, east) < 1e-10f) east = {1, 0, 0};  // perpendicular to this north
  }
  east = SafeNormalize(east);
  const Vec3 up = SafeNormalize(Cross(east, north));
  frame.toSky = {{{east.x, east.y, east.z}, {north.x, north.y, north.z}, {up.x, up.y, up.z}}};
  frame.toWorld = {{{east.x, north.x, up.x}, {east.y, north.y, up.y}, {east.z, north.z, up.z}}};
  return sound;
}

Vec2 MapCoordinates(const SkyFrame& frame, Vec3 direction) {
  const Vec3 d = frame.toSky * direction;
  return {1 - (kPi + std::atan2(d.y, d.x)) / (2 * kPi), 1 - std::acos(std::clamp(d.z, -1.0f, 1.0f)) / kPi};
}

Vec3 MapDirection(const SkyFrame& frame, Vec2 uv) {
  const float theta = kPi * (1 - uv.y), phi = kPi * (1 - 2 * uv.x);
  const float sine = std::sin(theta);
  return SafeNormalize(frame.toWorld * Vec3{sine * std::cos(phi), sine * std::sin(phi), std::cos(theta)});
}

Vec3 LookUp(const SkyMap& map, Vec2 uv) {
  const float width = static_cast<float>(map.width), height = static_cast<float>(map.height);
  // Written so that what is no number reads the first texel.
  const float x = width * uv.x > 0 ? std::min(width * uv.x, width) : 0.0f;
  const float y = height * uv.y > 0 ? std::min(height * uv.y, height - 1) : 0.0f;
  int left = static_cast<int>(x);
  const int lower = static_cast<int>(y);
  const float fx = x - static_cast<float>(left), fy = y - static_cast<float>(lower);
  if (left >= map.width) left = 0;
  const int right = left + 1 < map.width ? left + 1 : 0;
  const int upper = std::min(lower + 1, map.height - 1);
  const std::size_t lowerRow = static_cast<std::size_t>(lower) * static_cast<std::size_t>(map.width);
  const std::size_t upperRow = static_cast<std::size_t>(upper) * static_cast<std::size_t>(map.width);
  const Corners corners = {lowerRow + static_cast<std::size_t>(left),
                           lowerRow + static_cast<std::size_t>(right),
                           upperRow + static_cast<std::size_t>(left),
                           upperRow + static_cast<std::size_t>(right),
                           fx,
                           fy};
  if (map.packed.empty()) return Blend(corners, [&](std::size_t i) { return map.colors[i]; });
  return Blend(corners, [&](std::size_t i) { return Unpack(map.packed[i]); });
}

SkyMap BakeSkyModel(const SkyModelState& state, const SkyFrame& frame, Vec3 sun, float albedo) {
  // Below a fifth of a degree a row: the sky changes fastest in the last degree above the horizon.
  constexpr int kWidth = 2048, kHeight = 1024;
  SkyMap map;
  map.colors.resize(static_cast<std::size_t>(kWidth) * kHeight);
  const auto row = [&](int y) { return map.colors.data() + static_cast<std::size_t>(y) * kWidth; };
  // The row at half the height stands on the horizon itself.
#pragma omp parallel for schedule(static)
  for (int y = kHeight / 2; y < kHeight; ++y) {
    const float v = static_cast<float>(y) / kHeight;
    const double cosTheta = std::sin(static_cast<double>(kPi) * (static_cast<double>(v) - 0.5));
    for (int x = 0; x < kWidth; ++x) {
      const Vec3 direction = MapDirection(frame, {static_cast<float>(x) / kWidth, v});
      const double cosGamma = static_cast<double>(Dot(direction, sun));
      for (int c = 0; c < 3; ++c)  // the fit dips below 0 at the horizon under a low sun
        row(y)[x][c] =
            static_cast<float>(std::max(SkyModelRadiance(state.channels[c], cosTheta, cosGamma), 0.0));
    }
  }
  // Irradiance of the ground: cosine times solid angle, summed over the texels above the horizon.
  double irradiance[3] = {};
  for (int y = kHeight / 2; y < kHeight; ++y) {
    const double elevation = static_cast<double>(kPi) * (static_cast<double>(y) / kHeight - 0.5);
    const double area =
        2.0 * static_cast<double>(kPi) * static_cast<double>(kPi) / (kWidth * static_cast<double>(kHeight));
    const double weight = std::sin(elevation) * std::cos(elevation) * area;
    for (int x = 0; x < kWidth; ++x)
      for (int c = 0; c < 3; ++c) irradiance[c] += weight * static_cast<double>(row(y)[x][c]);
  }
  const double reflectance =
      albedo > 0 ? std::min(static_cast<double>(albedo), 1.0) / static_cast<double>(kPi) : 0.0;
  Vec3 ground;
  for (int c = 0; c < 3; ++c) ground[c] = static_cast<float>(reflectance * irradiance[c]);
  std::fill(map.colors.begin(), map.colors.begin() + static_cast<std::ptrdiff_t>(kWidth) * (kHeight / 2),
            ground);
  map.width = kWidth;
  map.height = kHeight;
  return map;
}

}  // namespace zp
