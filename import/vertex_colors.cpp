#include "vertex_colors.h"

#include <algorithm>
#include <cmath>

namespace zp {
namespace {

constexpr std::size_t kWidestPicture = 16384;  // pixels

std::uint8_t ScreenByte(float linear) {
  return static_cast<std::uint8_t>(std::lround(255 * std::pow(std::clamp(linear, 0.0f, 1.0f), 1 / 2.2f)));
}

// Faces of three corners, none of which two faces share.
void SplitFaces(ImportMesh& mesh, std::vector<Vec3>& colors) {
  ImportMesh split;
  std::vector<Vec3> splitColors;
  std::size_t at = 0;
  for (const std::uint32_t size : mesh.faceSizes) {
    for (std::uint32_t k = 2; k < size; ++k)
      for (const std::size_t corner : {at, at + k - 1, at + k}) {
        const std::uint32_t vertex = mesh.corners[corner];
        split.corners.push_back(static_cast<std::uint32_t>(split.positions.size()));
        split.positions.push_back(mesh.positions[vertex]);
        if (!mesh.normals.empty()) split.normals.push_back(mesh.normals[vertex]);
        splitColors.push_back(colors[vertex]);
      }
    at += size;
  }
  split.faceSizes.assign(split.corners.size() / 3, 3);
  split.surface = mesh.surface;
  mesh = std::move(split);
  colors = std::move(splitColors);
}

// Each triangle has a square of four pixels, whose fourth goes on as the plane through the other three does:
// what lies between their middles is mixed as between the corners.
bool Paint(ImportModel& model, ImportMesh& mesh, std::vector<Vec3> colors, ImportSurface& surface) {
  SplitFaces(mesh, colors);
  const std::size_t faces = mesh.faceSizes.size();
  const auto across = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(faces))));
  const std::size_t down = (faces + across - 1) / across, width = 2 * across, height = 2 * down;
  if (width > kWidestPicture) return false;
  std::vector<std::uint8_t> pixels(3 * width * height);
  const auto set = [&](std::size_t x, std::size_t y, Vec3 color) {
    std::uint8_t* pixel = &pixels[3 * (y * width + x)];
    for (int c = 0; c < 3; ++c) pixel[2 - c] = ScreenByte(color[c]);
  };
  mesh.uvs.assign(1, std::vector<Vec2>(mesh.positions.size()));
  for (std::size_t f = 0; f < faces; ++f) {
    const std::size_t x = 2 * (f % across), y = 2 * (f / across);
    const Vec3 a = colors[3 * f], b = colors[3 * f + 1], c = colors[3 * f + 2];
    set(x, y, a);
    set(x + 1, y, b);
    set(x, y + 1, c);
    set(x + 1, y + 1, b + c - a);
    const auto uv = [&](std::size_t px, std::size_t py) {
      return Vec2{(static_cast<float>(px) + 0.5f) / static_cast<float>(width),
                  (static_cast<float>(py) + 0.5f) / static_cast<float>(height)};
    };
    mesh.uvs[0][3 * f] = uv(x, y);
    mesh.uvs[0][3 * f + 1] = uv(x + 1, y);
    mesh.uvs[0][3 * f + 2] = uv(x, y + 1);
  }
  surface.basePicture = {};
  surface.basePicture.picture = static_cast<std::int32_t>(model.pictures.size());
  ImportPicture& picture = model.pictures.emplace_back();
  picture.label = "colors.tga";
  picture.bytes = TgaFile(width, height, pixels);
  return true;
}

}  // namespace

std::vector<std::uint8_t> TgaFile(std::size_t width, std::size_t height,
                                  const std::vector<std::uint8_t>& pixels) {
  std::vector<std::uint8_t> bytes = {0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  for (const std::size_t side : {width, height}) {
    bytes.push_back(static_cast<std::uint8_t>(side & 255U));
    bytes.push_back(static_cast<std::uint8_t>(side >> 8U & 255U));
  }
  bytes.insert(bytes.end(), {24, 0});
  bytes.insert(bytes.end(), pixels.begin(), pixels.end());
  return bytes;
}

void ApplyVertexColors(ImportModel& model, ImportMesh& mesh, const std::vector<Vec3>& colors, bool multiplies,
                       const std::string& label) {
  if (colors.empty() || colors.size() != mesh.positions.size()) return;
  Vec3 sum = {}, low = colors[0], high = colors[0];
  for (const Vec3 color : colors) {
    sum = sum + color;
    low = MinOf(low, color);
    high = MaxOf(high, color);
  }
  constexpr float kEven = 0.01f;
  if (multiplies && Mean(low) > 1 - kEven) return;  // white
  ImportSurface surface = model.surfaces[static_cast<std::size_t>(mesh.surface)];
  bool hasPictures = false;
  for (const PictureUse* use : {&surface.basePicture, &surface.metallicPicture, &surface.roughnessPicture,
                                &surface.emissionPicture, &surface.normalPicture, &surface.maskPicture})
    hasPictures = hasPictures || use->picture != kNone;
  const bool isEven = Mean(high - low) < kEven;
  if (!multiplies) surface.base = kWhite;
  if (isEven || hasPictures || !Paint(model, mesh, colors, surface)) {
    surface.base = surface.base * (sum / static_cast<float>(colors.size()));
    if (!isEven) AddLoss(model, "the mesh \"" + label + "\" shows the mean of its vertices' colours");
  }
  mesh.surface = static_cast<std::int32_t>(model.surfaces.size());
  model.surfaces.push_back(std::move(surface));
}

}  // namespace zp
