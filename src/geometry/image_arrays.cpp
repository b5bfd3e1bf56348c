// Pictures as arrays of a Part. A picture's components are one flat row of floats, and vertices take three or
// four at a time from it.

#include <algorithm>
#include <bit>
#include <utility>

#include "core/console.h"
#include "geometry/geometry.h"
#include "shading/shading.h"

namespace zp {
namespace {

// Buffers start with the bottom row of the picture; arrays with the top one.
void TurnRowsOver(ImageBuffer& image) {
  const auto row = static_cast<std::ptrdiff_t>(image.width) * image.channels;
  auto begin = image.floatPixels.begin();
  for (std::ptrdiff_t low = 0, high = image.height - 1; low < high; ++low, --high)
    std::swap_ranges(begin + low * row, begin + (low + 1) * row, begin + high * row);
}

bool HasFloats(const ImageBuffer& image) {
  if (image.bits != 32 || image.packed || image.width <= 0 || image.height <= 0 || image.channels <= 0)
    return false;
  const std::size_t components = static_cast<std::size_t>(image.width) *
                                 static_cast<std::size_t>(image.height) *
                                 static_cast<std::size_t>(image.channels);
  return components == image.floatPixels.size();
}

// Hands each three components that follow each other to `take`. Intended: the number of channels has no say.
template <class Take>
void ForEachTriple(const std::vector<float>& values, Take&& take) {
  for (std::size_t i = 0; i + 3 <= values.size(); i += 3) take(Vec3{values[i], values[i + 1], values[i + 2]});
}

template <class T>
std::vector<T>& FirstSet(std::vector<VertexSet<T>>& sets, const char* name) {
  if (sets.empty()) sets.push_back({name, {}});
  return sets.front().values;
}

// The floats' bit patterns are the indices. Those that name no position yet are dropped with their triangle.
void AddTriangles(const ImageBuffer& image, Part& part) {
  bool dropped = false;
  const std::size_t positions = part.positions.size();
  ForEachTriple(image.floatPixels, [&](Vec3 pixel) {
    const Triangle triangle = {{std::bit_cast<std::uint32_t>(pixel.x), std::bit_cast<std::uint32_t>(pixel.y),
                                std::bit_cast<std::uint32_t>(pixel.z)},
                               0};
    const bool inside = std::all_of(std::begin(triangle.vertex), std::end(triangle.vertex),
                                    [&](std::uint32_t vertex) { return vertex < positions; });
    if (inside) part.triangles.push_back(triangle);
    dropped |= !inside;
  });
  if (dropped)
    PrintWarning("object - triangle indices out of range in " + image.fileName,
                 {"array-indices", image.fileName});
}

// Particles are numbered by their pixels, whatever positions were there before.
void AddParticles(const ImageBuffer& image, Part& part) {
  std::vector<float>& radii = FirstSet(part.scalarSets, "radius");
  const std::vector<float>& values = image.floatPixels;
  for (std::size_t i = 0; i + 4 <= values.size(); i += 4) {
    part.positions.push_back({values[i], values[i + 1], values[i + 2]});
    radii.push_back(values[i + 3]);
    part.particles.push_back(static_cast<std::uint32_t>(i / 4));
  }
}

}  // namespace

ArrayResult AddArrayImage(ArrayKind kind, ImageBuffer image, Part& part) {
  if (!HasFloats(image)) {
    PrintWarning("object - no 32-bit floats in " + image.fileName, {"array-floats", image.fileName});
    return ArrayResult::kUnfit;
  }
  if (kind == ArrayKind::kParticle && image.channels < 4) {
    PrintWarning("object - particles need four components in " + image.fileName,
                 {"array-components", image.fileName});
    return ArrayResult::kUnfit;
  }
  TurnRowsOver(image);
  switch (kind) {
    case ArrayKind::kPosition:
      ForEachTriple(image.floatPixels, [&](Vec3 pixel) { part.positions.push_back(pixel); });
      break;
    case ArrayKind::kUv: {
      std::vector<Vec2>& uvs = FirstSet(part.uvSets, "uv");
      ForEachTriple(image.floatPixels, [&](Vec3 pixel) { uvs.push_back({pixel.x, pixel.y}); });
      break;
    }
    case ArrayKind::kNormal:
      ForEachTriple(image.floatPixels, [&](Vec3 pixel) { part.normals.push_back(Pack(pixel)); });
      break;
    case ArrayKind::kTangent:
      ForEachTriple(image.floatPixels, [&](Vec3 pixel) { part.tangents.push_back(Pack(pixel)); });
      break;
    case ArrayKind::kTriangle:
      AddTriangles(image, part);
      break;
    case ArrayKind::kParticle:
      AddParticles(image, part);
      break;
  }
  return ArrayResult::kRead;
}

ArrayResult ReadArrayImage(ArrayKind kind, const std::string& name, Part& part, PictureProblem* problem) {
  if (name.empty()) return ArrayResult::kNothing;
  ImageBuffer image;
  image.fileName = name;
  image.allowPacked = false;
  const bool loaded = LoadTexture(image);
  if (problem != nullptr) *problem = image.problem;
  if (!loaded) return ArrayResult::kNotLoaded;
  return AddArrayImage(kind, std::move(image), part);
}

}  // namespace zp
