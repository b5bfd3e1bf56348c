#include <algorithm>

#include "core/console.h"
#include "core/files.h"
#include "core/random.h"
#include "core/stop.h"
#include "shading/name_index.h"
#include "shading/shading.h"

namespace zp {

std::vector<ImageBuffer> images;
std::vector<std::string> imageSearchPaths;

std::int32_t FindOrAddTexture(std::string_view name) {
  if (name.empty()) return kNone;
  static NameIndex<ImageBuffer> imageNames;
  const auto nameOf = [](const ImageBuffer& image) -> const std::string& { return image.fileName; };
  if (const std::int32_t found = imageNames.Find(images, name, nameOf); found != kNone) return found;
  images.emplace_back().fileName = name;
  return static_cast<std::int32_t>(images.size() - 1);
}

bool LoadTexture(ImageBuffer& image) {
  if (image.fileName.empty()) return false;
  if (image.loaded) return true;
  if (Stopping()) return false;
  const std::string name = image.fileName;  // the table's key, whatever path the file is found under
  PictureProblem problem = PictureProblem::kMissing;
  for (const std::string& folder : imageSearchPaths) {
    std::string path = folder;
    if (!path.empty()) path += '/';
    path += name;
    NoteRead(path);
    if (KindOfFile(path) != FileKind::kFile) continue;
    image.loaded = LoadImage(image, path);
    image.fileName = name;
    if (image.loaded) return true;
    problem = std::max(problem, image.problem);
  }
  if (Stopping()) return false;
  image.problem = problem;
  ++missingFiles;
  PrintError("image - " + name + '\t' + std::string(ProblemText(problem)), {"image-unread", name});
  PrintRule();
  return false;
}

std::int32_t MaskTexture(std::int32_t image) {
  if (!IsIndex(images, image) || At(images, image).channels != 4) return image;
  const ImageBuffer& source = At(images, image);
  ImageBuffer mask;
  Allocate(mask, source.width, source.height, 1, source.bits, false);
  mask.wordScale = source.wordScale;
  mask.loaded = true;
  bool transparent = false;
  const auto copy = [&](const auto& from, auto& to, auto full) {
    for (std::size_t i = 0; i < to.size() && 4 * i + 3 < from.size(); ++i) {
      to[i] = from[4 * i + 3];
      transparent = transparent || to[i] < full;
    }
  };
  copy(source.bytePixels, mask.bytePixels, 255);
  copy(source.wordPixels, mask.wordPixels, 65535);
  copy(source.floatPixels, mask.floatPixels, 1.0f);
  if (!transparent) return image;
  const std::int32_t made = FindOrAddTexture("alpha of texture " + std::to_string(image));
  mask.fileName = At(images, made).fileName;
  At(images, made) = std::move(mask);
  return made;
}

namespace {

// The texel that an index means; other modes than repeat and clamp leave it alone.
std::int64_t Wrap(std::int64_t i, std::int64_t size, int mode) {
  if (i >= 0 && i < size) [[likely]]
    return i;
  if (mode == 0) return i < 0 ? size - (-(i + 1) % size) - 1 : i % size;
  if (mode == 1) return std::clamp<std::int64_t>(i, 0, size - 1);
  return i;
}

float Power(float x, float gamma) {
  const float power = std::pow(x, gamma);
  return std::isfinite(power) ? power : 0.0f;
}

// Wrapped indices. One that no mode wraps may name a texel of another row, as the texels lie in memory;
// behind the picture's ends is black.
Vec3 Texel(const ImageBuffer& image, float gamma, std::int64_t column, std::int64_t row) {
  const std::int64_t index = row * image.width + column;
  if (index < 0 || index >= static_cast<std::int64_t>(image.width) * image.height) return kBlack;
  const Vec3 c = ReadPixel(image, static_cast<std::size_t>(index));
  if (gamma == 1) return c;
  return {Power(c.x, gamma), Power(c.y, gamma), Power(c.z, gamma)};
}

constexpr Vec3 Mix(Vec3 a, Vec3 b, float t) { return (1 - t) * a + t * b; }

Vec3 ApplyColorMatrix(const Mat4& matrix, Vec3 c) {
  const auto& m = matrix.m;
  const auto row = [&](int i) { return m[i][0] * c.x + m[i][1] * c.y + m[i][2] * c.z + m[i][3]; };
  const float d = row(3);
  const Vec3 result = {row(0) / d, row(1) / d, row(2) / d};
  return IsFinite(result) ? result : kBlack;
}

}  // namespace

Vec3 LookUpTexture(const ImageBuffer& image, const ImageSlot& slot, Vec2 uv) {
  if (image.width <= 0 || image.height <= 0) return kBlack;
  if (!slot.uvMatrixIsIdentity) {
    const Vec3 mapped = slot.uvMatrix * Vec3{uv.x, uv.y, 1};
    uv = {mapped.x / mapped.z, mapped.y / mapped.z};
  }
  // Coordinates that are no number, or too large to tell texels apart, must not reach an index.
  constexpr float kLargest = 1e9f;
  const float x = static_cast<float>(image.width) * uv.x, y = static_cast<float>(image.height) * uv.y;
  if (!(std::abs(x) <= kLargest) || !(std::abs(y) <= kLargest)) return kBlack;
  const float left = std::floor(x), below = std::floor(y);
  const float fx = x - left, fy = y - below;
  const auto column = [&, ix = static_cast<std::int64_t>(left)](int right) {
    return Wrap(ix + right, image.width, slot.wrapU);
  };
  const auto row = [&, iy = static_cast<std::int64_t>(below)](int above) {
    return Wrap(iy + above, image.height, slot.wrapV);
  };
  Vec3 color;
  switch (slot.pixelSampler) {
    case PixelSampler::kNearest:
      color = Texel(image, slot.gamma, column(0), row(0));
      break;
    case PixelSampler::kStochastic: {
      // One texel instead of four: bilinear on average.
      const int right = fx > RandomFloat() ? 1 : 0, above = fy > RandomFloat() ? 1 : 0;
      color = Texel(image, slot.gamma, column(right), row(above));
      break;
    }
    case PixelSampler::kBilinear: {
      const std::int64_t columns[2] = {column(0), column(1)}, rows[2] = {row(0), row(1)};
      const auto mixRow = [&](int i) {
        return Mix(Texel(image, slot.gamma, columns[0], rows[i]),
                   Texel(image, slot.gamma, columns[1], rows[i]), fx);
      };
      color = Mix(mixRow(0), mixRow(1), fy);
      break;
    }
  }
  return slot.colorMatrixIsIdentity ? color : ApplyColorMatrix(slot.colorMatrix, color);
}

}  // namespace zp
