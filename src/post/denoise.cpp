#include "post/denoise.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>

#include "core/stop.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

constexpr int kReach = 8;       // pixels around one that are asked, to each side
constexpr int kPatch = 1;       // and around each, that are compared
constexpr int kGuides = 8;      // the numbers of the plane: 1, inverse depth, normal, albedo
constexpr int kCandidates = 2;  // strengths
constexpr float kStrengths[kCandidates] = {0.5f, 1.0f};
constexpr float kAway = 0.03f;  // what a pixel of distance counts, squared
constexpr int kTile = 32;       // pixels along the side of what one thread takes at once
constexpr int kMargin = kReach + kPatch;

// Numbers of all pixels and a margin around them, on the right a tile wide, so that loops ask no bounds.
struct Plane {
  std::vector<float> numbers;
  const float* At(std::ptrdiff_t i) const { return numbers.data() + i; }
};
using Color = std::array<Plane, 3>;

struct Frame {
  int width = 0, height = 0;
  std::ptrdiff_t stride = 0;
  Frame(int w, int h) : width(w), height(h), stride(w + 2 * kMargin + kTile) {}
  std::size_t Size() const {
    return static_cast<std::size_t>(stride) * static_cast<std::size_t>(height + 2 * kMargin);
  }
  std::ptrdiff_t Index(int x, int y) const { return (y + kMargin) * stride + x + kMargin; }
};

struct Guides {
  Plane inside;  // 1 in the picture, 0 in the margin
  std::array<Plane, kGuides> planes;
  Color divisor;  // of light, the albedo
};

// Repeats the outermost pixels in the margin.
void FillMargin(const Frame& frame, Plane& plane) {
  for (int y = -kMargin; y < frame.height + kMargin; ++y)
    for (int x = -kMargin; x < frame.width + kMargin; ++x) {
      const int nearX = std::clamp(x, 0, frame.width - 1), nearY = std::clamp(y, 0, frame.height - 1);
      if (nearX == x && nearY == y) {
        x = frame.width - 1;  // the row's own pixels stay
        continue;
      }
      plane.numbers[static_cast<std::size_t>(frame.Index(x, y))] =
          plane.numbers[static_cast<std::size_t>(frame.Index(nearX, nearY))];
    }
}

template <class Value>
Plane MakePlane(const Frame& frame, Value value) {
  Plane plane = {std::vector<float>(frame.Size())};
#pragma omp parallel for
  for (int y = 0; y < frame.height; ++y)
    for (int x = 0; x < frame.width; ++x) {
      const std::size_t pixel =
          static_cast<std::size_t>(y) * static_cast<std::size_t>(frame.width) + static_cast<std::size_t>(x);
      const float number = value(pixel);
      plane.numbers[static_cast<std::size_t>(frame.Index(x, y))] = std::isfinite(number) ? number : 0;
    }
  FillMargin(frame, plane);
  return plane;
}

// One number of one pixel of a layer; that of its only channel if it has but one.
float NumberOf(const Layer& layer, std::size_t pixel, std::size_t channel) {
  const std::size_t count = layer.channels.size();
  return layer.numbers[count * pixel + std::min(channel, count - 1)];
}

// The depth that half of the pixels with a surface lie before; 1 without any.
float MiddleDepth(const Layer& depth) {
  std::vector<float> finite;
  for (const float z : depth.numbers)
    if (std::isfinite(z) && z > 0) finite.push_back(z);
  if (finite.empty()) return 1;
  const auto middle = finite.begin() + static_cast<std::ptrdiff_t>(finite.size() / 2);
  std::nth_element(finite.begin(), middle, finite.end());
  return *middle;
}

// The inverse depth is linear on planes in a picture, and 0 without a surface. There light is not divided,
// and little where the albedo is black.
Guides MakeGuides(const Frame& frame, const LayeredPicture& picture) {
  constexpr float kLeastAlbedo = 0.02f;
  const Layer &albedo = *FindLayer(picture, "albedo"), &normal = *FindLayer(picture, "N"),
              &depth = *FindLayer(picture, "Z"), &beauty = *FindLayer(picture, "");
  const float middle = MiddleDepth(depth);
  const int alpha = FindChannel(beauty, "A");
  Guides guides;
  guides.inside = MakePlane(frame, [](std::size_t) { return 1.0f; });
  for (int y = -kMargin; y < frame.height + kMargin; ++y)
    for (int x = -kMargin; x < frame.width + kMargin; ++x)
      if (x < 0 || y < 0 || x >= frame.width || y >= frame.height)
        guides.inside.numbers[static_cast<std::size_t>(frame.Index(x, y))] = 0;
  guides.planes[0] = guides.inside;
  guides.planes[1] = MakePlane(frame, [&](std::size_t pixel) {
    const float z = depth.numbers[pixel];
    return z > 0 ? std::min(middle / z, 100.0f) : 0;
  });
  for (std::size_t c = 0; c < 3; ++c) {
    guides.planes[2 + c] = MakePlane(frame, [&](std::size_t pixel) { return NumberOf(normal, pixel, c); });
    guides.planes[5 + c] = MakePlane(frame, [&](std::size_t pixel) { return NumberOf(albedo, pixel, c); });
    guides.divisor[c] = MakePlane(frame, [&](std::size_t pixel) {
      const float covered = alpha < 0 ? (std::isfinite(depth.numbers[pixel]) && depth.numbers[pixel] > 0)
                                      : NumberOf(beauty, pixel, static_cast<std::size_t>(alpha));
      const float color = std::max(NumberOf(albedo, pixel, c), 0.0f);
      return std::max(color + 1 - std::clamp(covered, 0.0f, 1.0f), kLeastAlbedo);
    });
  }
  return guides;
}

// A layer's light, divided.
Color MakeLight(const Frame& frame, const Layer& layer, const Guides& guides) {
  Color color;
  for (std::size_t c = 0; c < 3; ++c) {
    color[c] = MakePlane(frame, [&](std::size_t pixel) { return NumberOf(layer, pixel, c); });
    for (std::size_t i = 0; i < color[c].numbers.size(); ++i)
      color[c].numbers[i] /= guides.divisor[c].numbers[i];
  }
  return color;
}

// One path that no other has found shines over all pixels that it is compared with: a half set's light ends
// at one and a half times the third brightest of the pixels around, in both half sets.
Color HoldFireflies(const Frame& frame, const Color& own, const Color& other) {
  constexpr std::ptrdiff_t kRank = 2;
  constexpr float kTimes = 1.5f;
  Color held = own;
  for (std::size_t c = 0; c < 3; ++c) {
#pragma omp parallel for
    for (int y = 0; y < frame.height; ++y)
      for (int x = 0; x < frame.width; ++x) {
        const std::ptrdiff_t middle = frame.Index(x, y);
        std::array<float, 17> around;
        auto at = around.begin();
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx) {
            const std::ptrdiff_t i = middle + dy * frame.stride + dx;
            *at++ = *other[c].At(i);
            if (i != middle) *at++ = *own[c].At(i);
          }
        std::nth_element(around.begin(), around.begin() + kRank, around.end(), std::greater<>());
        float& number = held[c].numbers[static_cast<std::size_t>(middle)];
        // What both have is no firefly.
        number = std::min(number, std::max(kTimes * around[kRank], *other[c].At(middle)));
      }
    FillMargin(frame, held[c]);
  }
  return held;
}

// Means over squares of pixels, in place.
void Blur(const Frame& frame, int reach, Plane& plane) {
  const float scale = 1 / static_cast<float>(2 * reach + 1);
  for (const bool across : {true, false}) {
    const Plane source = plane;
    const std::ptrdiff_t step = across ? 1 : frame.stride;
#pragma omp parallel for
    for (int y = 0; y < frame.height; ++y)
      for (int x = 0; x < frame.width; ++x) {
        const float* middle = source.At(frame.Index(x, y));
        float sum = 0;
        for (int d = -reach; d <= reach; ++d) sum += middle[d * step];
        plane.numbers[static_cast<std::size_t>(frame.Index(x, y))] = sum * scale;
      }
    FillMargin(frame, plane);
  }
}

// Of one half set, from the difference of both; one difference says little, those around it more.
Color MakeVariance(const Frame& frame, const Color& half0, const Color& half1) {
  constexpr int kSmoothing = 2;
  Color variance;
  for (std::size_t c = 0; c < 3; ++c) {
    variance[c].numbers.resize(frame.Size());
    for (std::size_t i = 0; i < frame.Size(); ++i) {
      const float difference = half0[c].numbers[i] - half1[c].numbers[i];
      variance[c].numbers[i] = difference * difference / 2;
    }
    Blur(frame, kSmoothing, variance[c]);
  }
  return variance;
}

// What is summed for the fits of a row of pixels of a tile: the upper half of the matrix of guides, and
// guides times light.
constexpr int kMatrix = kGuides * (kGuides + 1) / 2;
constexpr int kSums = kMatrix + 3 * kGuides;
using Lane = std::array<float, kTile>;

struct TileSums {
  std::array<std::array<Lane, kSums>, kTile> rows[kCandidates];
};

// One square of pixels whose fits are made together.
struct Tile {
  int left, top, width, height;
};

// How unlike the pixels of the tile are to those at an offset, a mean over patches.
struct Distances {
  static constexpr int kSide = kTile + 2 * kPatch;
  float single[kSide][kSide];  // of pixels, patches around the tile included
  float across[kSide][kTile];  // summed along rows
  float patch[kTile][kTile];
};

// Buades' distance less what noise of such a variance makes of equal pixels (Rousselle and others, 2012).
void MeasureDistances(const Frame& frame, const Tile& tile, std::ptrdiff_t offset, const Color& light,
                      const Color& variance, Distances& distances) {
  constexpr float kTiny = 1e-12f, kMost = 1e4f;
  constexpr int kSide = Distances::kSide;
  for (int y = 0; y < kSide; ++y) {
    float* out = distances.single[y];
    std::fill_n(out, kSide, 0.0f);
    if (y >= tile.height + 2 * kPatch) continue;
    const std::ptrdiff_t row = frame.Index(tile.left - kPatch, tile.top - kPatch + y);
    for (std::size_t c = 0; c < 3; ++c) {
      const float *a = light[c].At(row), *va = variance[c].At(row);
      const float *b = a + offset, *vb = va + offset;
      for (int x = 0; x < kSide; ++x) {
        const float d = a[x] - b[x];
        const float term = (d * d - (va[x] + std::min(va[x], vb[x]))) / (kTiny + va[x] + vb[x]);
        out[x] += std::min(term, kMost);
      }
    }
  }
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kTile; ++x) {
      float sum = 0;
      for (int d = 0; d <= 2 * kPatch; ++d) sum += distances.single[y][x + d];
      distances.across[y][x] = sum;
    }
  constexpr float kScale = 1.0f / (3 * (2 * kPatch + 1) * (2 * kPatch + 1));
  for (int y = 0; y < kTile; ++y)
    for (int x = 0; x < kTile; ++x) {
      float sum = 0;
      for (int d = 0; d <= 2 * kPatch; ++d) sum += distances.across[y + d][x];
      distances.patch[y][x] = sum * kScale;
    }
}

// Close to exp(-x) of a positive number, without a tail.
inline float Falloff(float x) {
  const float t = std::max(0.0f, 1 - 0.125f * x), t2 = t * t, t4 = t2 * t2;
  return t4 * t4;
}

// Adds what the pixels at an offset have to say to the sums of one row.
//   scale, away  the distance counts as scale * distance + away
void AddRow(const Guides& guides, const Color& values, const float* distance, float scale, float away,
            std::ptrdiff_t row, std::ptrdiff_t offset, std::array<Lane, kSums>& sums) {
  Lane weighted[kGuides], weight;
  const float* inside = guides.inside.At(row + offset);
  float any = 0;
  for (int x = 0; x < kTile; ++x) {
    weight[static_cast<std::size_t>(x)] = inside[x] * Falloff(std::max(distance[x] * scale, 0.0f) + away);
    any += weight[static_cast<std::size_t>(x)];
  }
  if (any == 0) return;
  Lane guide[kGuides];
  for (std::size_t g = 0; g < kGuides; ++g) {
    const float *there = guides.planes[g].At(row + offset), *here = guides.planes[g].At(row);
    for (std::size_t x = 0; x < kTile; ++x) {
      guide[g][x] = g == 0 ? 1.0f : there[x] - here[x];
      weighted[g][x] = weight[x] * guide[g][x];
    }
  }
  std::size_t sum = 0;
  for (std::size_t g = 0; g < kGuides; ++g)
    for (std::size_t h = g; h < kGuides; ++h, ++sum)
      for (std::size_t x = 0; x < kTile; ++x) sums[sum][x] += weighted[g][x] * guide[h][x];
  for (std::size_t c = 0; c < 3; ++c) {
    const float* light = values[c].At(row + offset);
    for (std::size_t g = 0; g < kGuides; ++g, ++sum)
      for (std::size_t x = 0; x < kTile; ++x) sums[sum][x] += weighted[g][x] * light[x];
  }
}

// The fit's value where all guides are those of the pixel itself, for three colours: Cholesky's method. What
// the guides cannot tell apart is held small.
std::array<float, 3> Solve(const std::array<Lane, kSums>& sums, std::size_t x) {
  constexpr double kHold = 1e-3;
  double l[kGuides][kGuides] = {};
  std::size_t at = 0;
  double matrix[kGuides][kGuides] = {};
  for (int g = 0; g < kGuides; ++g)
    for (int h = g; h < kGuides; ++h) matrix[h][g] = static_cast<double>(sums[at++][x]);
  const double total = matrix[0][0];
  for (int g = 1; g < kGuides; ++g) matrix[g][g] += kHold * (matrix[g][g] + total * 1e-2) + 1e-12;
  for (int i = 0; i < kGuides; ++i)
    for (int j = 0; j <= i; ++j) {
      double sum = matrix[i][j];
      for (int k = 0; k < j; ++k) sum -= l[i][k] * l[j][k];
      l[i][j] = i == j ? std::sqrt(std::max(sum, 1e-15)) : sum / l[j][j];
    }
  std::array<float, 3> result = {};
  for (std::size_t c = 0; c < 3; ++c) {
    double y[kGuides] = {};
    for (int i = 0; i < kGuides; ++i) {
      double sum = static_cast<double>(sums[at++][x]);
      for (int k = 0; k < i; ++k) sum -= l[i][k] * y[k];
      y[i] = sum / l[i][i];
    }
    for (int i = kGuides - 1; i >= 0; --i) {
      for (int k = i + 1; k < kGuides; ++k) y[i] -= l[k][i] * y[k];
      y[i] /= l[i][i];
    }
    result[c] = static_cast<float>(y[0]);
  }
  return result;
}

using Results = std::array<Color, kCandidates>;

// Fits the pixels of one tile.
//   likeness, variance  of the half set that tells which pixels are alike
//   values              of the other, or whatever is to be filtered
void FitTile(const Frame& frame, const Tile& tile, const Guides& guides, const Color& likeness,
             const Color& variance, const Color& values, TileSums& sums, Results& results) {
  Distances distances;
  for (auto& candidate : sums.rows)
    for (auto& row : candidate)
      for (Lane& lane : row) lane.fill(0);
  for (int dy = -kReach; dy <= kReach; ++dy)
    for (int dx = -kReach; dx <= kReach; ++dx) {
      const std::ptrdiff_t offset = dy * frame.stride + dx;
      const float away = kAway * static_cast<float>(dx * dx + dy * dy);
      MeasureDistances(frame, tile, offset, likeness, variance, distances);
      for (std::size_t k = 0; k < kCandidates; ++k)
        for (int y = 0; y < tile.height; ++y)
          AddRow(guides, values, distances.patch[y], 1 / (kStrengths[k] * kStrengths[k]), away,
                 frame.Index(tile.left, tile.top + y), offset, sums.rows[k][static_cast<std::size_t>(y)]);
    }
  for (std::size_t k = 0; k < kCandidates; ++k)
    for (int y = 0; y < tile.height; ++y)
      for (int x = 0; x < tile.width; ++x) {
        const auto fitted = Solve(sums.rows[k][static_cast<std::size_t>(y)], static_cast<std::size_t>(x));
        const auto pixel = static_cast<std::size_t>(frame.Index(tile.left + x, tile.top + y));
        for (std::size_t c = 0; c < 3; ++c) results[k][c].numbers[pixel] = fitted[c];
      }
}

Results MakeResults(const Frame& frame) {
  Results results;
  for (Color& color : results)
    for (Plane& plane : color) plane.numbers.resize(frame.Size());
  return results;
}

Results Fit(const Frame& frame, const Guides& guides, const Color& likeness, const Color& variance,
            const Color& values) {
  Results results = MakeResults(frame);
  const int across = (frame.width + kTile - 1) / kTile, down = (frame.height + kTile - 1) / kTile;
#pragma omp parallel
  {
    const auto sums = std::make_unique<TileSums>();
#pragma omp for schedule(dynamic)
    for (int i = 0; i < across * down; ++i) {
      if (Stopping()) continue;
      const int left = i % across * kTile, top = i / across * kTile;
      const Tile tile = {left, top, std::min(kTile, frame.width - left), std::min(kTile, frame.height - top)};
      FitTile(frame, tile, guides, likeness, variance, values, *sums, results);
    }
  }
  return results;
}

// How much of the stronger fit each pixel takes, from 0 to 1. The squared difference of a fit of one half set
// from the other is its error and a variance, which is the same for all.
Plane Choose(const Frame& frame, const Results& fits0, const Results& fits1, const Color& half0,
             const Color& half1) {
  constexpr int kErrorReach = 2, kChoiceReach = 1;
  Plane weaker = {std::vector<float>(frame.Size())}, stronger = weaker;
  for (std::size_t i = 0; i < frame.Size(); ++i)
    for (std::size_t c = 0; c < 3; ++c) {
      const auto error = [&](std::size_t k) {
        const float a = fits0[k][c].numbers[i] - half1[c].numbers[i];
        const float b = fits1[k][c].numbers[i] - half0[c].numbers[i];
        return a * a + b * b;
      };
      weaker.numbers[i] += error(0);
      stronger.numbers[i] += error(1);
    }
  for (Plane* plane : {&weaker, &stronger}) Blur(frame, kErrorReach, *plane);
  Plane choice = {std::vector<float>(frame.Size())};
  for (std::size_t i = 0; i < frame.Size(); ++i)
    choice.numbers[i] = stronger.numbers[i] < weaker.numbers[i] ? 1.0f : 0.0f;
  FillMargin(frame, choice);
  Blur(frame, kChoiceReach, choice);
  return choice;
}

// Puts the mean of both fits into the layer's colours. Light is not negative where it was not.
void TakeFits(const Frame& frame, const Guides& guides, const Plane& choice, const Results& fits0,
              const Results& fits1, Layer& layer) {
  const std::size_t channels = layer.channels.size();
  for (int y = 0; y < frame.height; ++y)
    for (int x = 0; x < frame.width; ++x) {
      const auto i = static_cast<std::size_t>(frame.Index(x, y));
      const std::size_t pixel =
          static_cast<std::size_t>(y) * static_cast<std::size_t>(frame.width) + static_cast<std::size_t>(x);
      for (std::size_t c = 0; c < std::min<std::size_t>(3, channels); ++c) {
        float& number = layer.numbers[channels * pixel + c];
        const float weaker = (fits0[0][c].numbers[i] + fits1[0][c].numbers[i]) / 2;
        const float stronger = (fits0[1][c].numbers[i] + fits1[1][c].numbers[i]) / 2;
        const float light = weaker + choice.numbers[i] * (stronger - weaker);
        const float filtered = light * guides.divisor[c].numbers[i];
        number = number >= 0 || !std::isfinite(number) ? std::max(filtered, 0.0f) : filtered;
      }
    }
}

bool IsLightGroup(const Layer& layer) {
  return layer.name.starts_with("light_") && layer.channels.size() >= 3 && layer.kind != LayerKind::kId;
}

// The groups' shares of the beauty, as they are filtered, of the beauty as it is.
void ScaleGroups(LayeredPicture& picture) {
  Layer& beauty = *FindLayer(picture, "");
  for (std::size_t pixel = 0; pixel < PixelCount(picture); ++pixel)
    for (std::size_t c = 0; c < 3; ++c) {
      double sum = 0;
      for (const Layer& layer : picture.layers)
        if (IsLightGroup(layer)) sum += static_cast<double>(NumberOf(layer, pixel, c));
      const double scale = sum > 0 ? static_cast<double>(NumberOf(beauty, pixel, c)) / sum : 1;
      for (Layer& layer : picture.layers)
        if (IsLightGroup(layer)) {
          float& number = layer.numbers[layer.channels.size() * pixel + c];
          number = static_cast<float>(number * scale);
        }
    }
}

bool IsColor(const Layer* layer) { return layer != nullptr && layer->channels.size() >= 3; }

}  // namespace

std::string MissingForDenoise(const LayeredPicture& picture) {
  std::string missing;
  const auto need = [&missing](bool there, const char* name) {
    if (!there) missing += (missing.empty() ? "" : ", ") + std::string(name);
  };
  need(IsColor(FindLayer(picture, "")), "R G B");
  for (const char* name : {"half0", "half1", "albedo", "N"}) need(IsColor(FindLayer(picture, name)), name);
  const Layer* depth = FindLayer(picture, "Z");
  need(depth != nullptr && depth->channels.size() == 1, "Z");
  return missing;
}

bool Denoise(LayeredPicture& picture, const DenoiseOptions& options) {
  const Frame frame(picture.data.Width(), picture.data.Height());
  const Guides guides = MakeGuides(frame, picture);
  const Color light0 = MakeLight(frame, *FindLayer(picture, "half0"), guides);
  const Color light1 = MakeLight(frame, *FindLayer(picture, "half1"), guides);
  const Color half0 = HoldFireflies(frame, light0, light1), half1 = HoldFireflies(frame, light1, light0);
  const Color variance = MakeVariance(frame, half0, half1);
  const Results fits0 = Fit(frame, guides, half1, variance, half0);
  const Results fits1 = Fit(frame, guides, half0, variance, half1);
  if (Stopping()) return false;
  const Plane choice = Choose(frame, fits0, fits1, half0, half1);
  LayeredPicture result = picture;
  TakeFits(frame, guides, choice, fits0, fits1, *FindLayer(result, ""));
  bool hasGroups = false;
  for (Layer& layer : result.layers) {
    if (!options.lightGroups || !IsLightGroup(layer)) continue;
    const Color light = MakeLight(frame, layer, guides);
    TakeFits(frame, guides, choice, Fit(frame, guides, half1, variance, light),
             Fit(frame, guides, half0, variance, light), layer);
    hasGroups = true;
  }
  if (hasGroups) ScaleGroups(result);
  if (Stopping()) return false;
  picture = std::move(result);
  SetAttribute(picture, "zephlore:denoised", std::int32_t{1});
  return true;
}

std::string ExportForDenoiser(const LayeredPicture& picture, const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) return "'" + folder + "': " + error.message();
  const std::pair<const char*, const char*> files[] = {
      {"", "color.pfm"}, {"albedo", "albedo.pfm"}, {"N", "normal.pfm"}};
  for (const auto& [name, file] : files) {
    const std::string path = (fs::path(folder) / file).string();
    LayeredPicture one = {picture.data, picture.data, {*FindLayer(picture, name)}, {}};
    if (std::string reason = WriteLayers(path, one); !reason.empty()) return "'" + path + "': " + reason;
  }
  return {};
}

}  // namespace zp
