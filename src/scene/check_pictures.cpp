// Pictures whose numbers are probably not meant as they stand.

#include <algorithm>
#include <cmath>

#include "core/index.h"
#include "core/settings.h"
#include "lights/lights.h"
#include "scene/check_parts.h"

namespace zp {
namespace {

// A factor below this makes up for the 257 that a white of 16 bits reads as.
constexpr float kGain = 1.0f / 64;
constexpr std::size_t kMostPixels = 4096;  // that are looked at

float Largest(Vec3 color) { return std::max({std::abs(color.x), std::abs(color.y), std::abs(color.z)}); }

const ImageBuffer* LoadedPicture(const std::string& name) {
  if (name.empty()) return nullptr;
  const ImageBuffer& image = At(images, FindOrAddTexture(name));
  return image.loaded && image.width > 0 && image.height > 0 ? &image : nullptr;
}

// Some pixels from all over the picture.
template <class Visit>
void ForSomePixels(const ImageBuffer& image, Visit&& visit) {
  const std::size_t pixels = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
  const std::size_t count = std::min(pixels, kMostPixels);
  for (std::size_t i = 0; i < count; ++i) visit(ReadPixel(image, i * pixels / count));
}

bool IsColorful(const ImageBuffer& image) {
  bool colorful = false;
  if (image.channels < 3) return false;
  ForSomePixels(image,
                [&](Vec3 c) { colorful |= std::abs(c.x - c.y) > 0.02f || std::abs(c.y - c.z) > 0.02f; });
  return colorful;
}

// Normals that are kept as 0 to 1: the two that lean to the sides lie around one half.
bool HoldsHalvedNormals(const ImageBuffer& image) {
  Vec3 sum;
  float count = 0;
  ForSomePixels(image, [&](Vec3 c) {
    sum += c;
    ++count;
  });
  const Vec3 mean = sum / count;
  return std::abs(mean.x - 0.5f) < 0.2f && std::abs(mean.y - 0.5f) < 0.2f && mean.z > 0.5f;
}

void FindSixteenBits(SceneNotes& notes, const TextPlace& place, const std::string& name,
                     std::string_view suggestion) {
  if (settings.format >= 2) return;
  Find(notes, place, FindingCode::kSixteenBits,
       Quoted(name) + " holds 16 bits, which read as 0 to 257 but in format 2", suggestion);
}

void CheckSlot(SceneNotes& notes, const NotedSlot& noted) {
  const ImageSlot& slot = noted.slot;
  const ImageBuffer* image = LoadedPicture(slot.imageName);
  if (image == nullptr || !slot.colorMatrixIsIdentity) return;
  if (image->bits == 16 && Largest(slot.color) > kGain)
    FindSixteenBits(notes, noted.image, slot.imageName,
                    "color_matrix 0.00389105 0 0 0  0 0.00389105 0 0  0 0 0.00389105 0  0 0 0 1");
  if (noted.element == "normal" && (image->bits != 16 || settings.format >= 2) && HoldsHalvedNormals(*image))
    Find(notes, noted.image, FindingCode::kNormalRange,
         Quoted(slot.imageName) + " keeps normals as 0 to 1, and is read as it stands",
         "color_matrix 2 0 0 -1  0 2 0 -1  0 0 2 -1  0 0 0 1");
  constexpr std::string_view kColors[] = {"lambertian", "transmissive", "glossy", "specular", "emissive"};
  const bool isColor = std::find(std::begin(kColors), std::end(kColors), noted.element) != std::end(kColors);
  if (isColor && image->bits == 8 && !noted.gammaStated && slot.gamma == 1 && IsColorful(*image))
    Find(notes, noted.image, FindingCode::kLinearColors,
         Quoted(slot.imageName) + " holds colors of 8 bits, as made for a screen, and is read as linear",
         "gamma 2.2");
}

}  // namespace

void CheckPictures(SceneNotes& notes) {
  for (const NotedSlot& noted : notes.slots) CheckSlot(notes, noted);
  const auto checkSky = [&](std::string_view keyword, const std::string& name, Vec3 factor) {
    const ImageBuffer* image = LoadedPicture(name);
    if (image != nullptr && image->bits == 16 && Largest(factor) > kGain)
      FindSixteenBits(notes, StatedAt(notes, keyword, {"light", 0}), name, {});
  };
  checkSky("sky_light.image", skyLight.image == kAnalyticSky ? std::string() : skyLight.image,
           skyLight.color);
  checkSky("sky_light.backdrop", skyLight.backdrop, kWhite);
}

}  // namespace zp
