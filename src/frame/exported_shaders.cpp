// Shaders and their layers, as a host fills them.

#include "core/index.h"
#include "core/settings.h"
#include "frame/exported_records.h"
#include "frame/zp.h"

using zp::Agree;
using zp::At;

namespace {

static_assert(Agree(Element::kLambertian, zp::Element::kLambertian));
static_assert(Agree(Element::kTransmissive, zp::Element::kTransmissive));
static_assert(Agree(Element::kGlossy, zp::Element::kGlossy));
static_assert(Agree(Element::kSpecular, zp::Element::kSpecular));
static_assert(Agree(Element::kEmissive, zp::Element::kEmissive));
static_assert(Agree(Element::kDiffusion, zp::Element::kDiffusion));
static_assert(Agree(Element::kShadowTransparency, zp::Element::kShadowTransparency));
static_assert(Agree(Element::kNormal, zp::Element::kNormal));
static_assert(Agree(Element::kWeight, zp::Element::kWeight));
static_assert(Agree(Element::kAnisotropy, zp::Element::kAnisotropy));
static_assert(Agree(Element::kRoughness, zp::Element::kRoughness));
static_assert(Agree(Element::kAngle, zp::Element::kAngle));
static_assert(Agree(Element::kIor, zp::Element::kIor));
static_assert(Agree(Element::kUnnamed13, zp::Element::kUnnamed13));
static_assert(Agree(Element::kThickness, zp::Element::kThickness));
static_assert(Agree(Element::kUnnamed15, zp::Element::kUnnamed15));
static_assert(Agree(Material::kConductor, zp::Material::kConductor));
static_assert(Agree(Material::kDielectric, zp::Material::kDielectric));
static_assert(Agree(Material::kThinDielectric, zp::Material::kThinDielectric));
static_assert(Agree(Sideness::kFace, zp::Sideness::kFace));
static_assert(Agree(Sideness::kBack, zp::Sideness::kBack));
static_assert(Agree(Sideness::kBoth, zp::Sideness::kBoth));
static_assert(Agree(Visibility::kInvisible, zp::Visibility::kInvisible));
static_assert(Agree(Visibility::kNotLightPrimary, zp::Visibility::kNotLightPrimary));
static_assert(Agree(Visibility::kNotCameraPrimary, zp::Visibility::kNotCameraPrimary));
static_assert(Agree(Visibility::kAll, zp::Visibility::kAll));

zp::ImageSlot* SlotAt(int shader, int layer, Element element) {
  const int i = static_cast<int>(element);
  zp::SurfaceShader* record = zp::LayerAt(shader, layer);
  return record != nullptr && zp::IsIndex(record->slots, i) ? &At(record->slots, i) : nullptr;
}

// Format 1 keeps the matrices that a host gives, and does not apply them.
bool HostMatricesAct() { return zp::settings.format >= 2; }

void SetImage(zp::ImageSlot* slot, const char* path, float gamma, const float color[][4],
              const float uv[][3]) {
  if (slot == nullptr) return;
  slot->imageName = zp::Text(path);
  slot->gamma = gamma;
  for (int row = 0; color != nullptr && row < 4; ++row)
    for (int column = 0; column < 4; ++column) slot->colorMatrix.m[column][row] = color[row][column];
  for (int row = 0; uv != nullptr && row < 3; ++row)
    for (int column = 0; column < 3; ++column) slot->uvMatrix.m[row][column] = uv[row][column];
  if (!HostMatricesAct()) return;
  slot->colorMatrixIsIdentity = color == nullptr;
  slot->uvMatrixIsIdentity = uv == nullptr;
}

}  // namespace

int zpAddShader() noexcept { return zp::Append(zp::shaders); }

void zpSetShaderName(int shader, const char* name) noexcept {
  if (RecordAt(zp::shaders, shader) != nullptr) zp::RenameShader(shader, zp::Text(name));
}
void zpSetShaderVisibility(int shader, Visibility visibility) noexcept {
  if (zp::Shader* record = RecordAt(zp::shaders, shader))
    record->geometry.visibility = static_cast<zp::Visibility>(visibility);
}
void zpSetShaderSmoothAngle(int shader, float degrees) noexcept {
  if (zp::Shader* record = RecordAt(zp::shaders, shader)) record->geometry.smoothAngle = degrees;
}
void zpSetShaderRoundCorner(int shader, float radius) noexcept {
  if (zp::Shader* record = RecordAt(zp::shaders, shader)) record->geometry.roundCorner = radius;
}
void zpSetShaderTime(int /*shader*/, float /*time*/) noexcept {}

int zpAddSurfaceShader(int shader) noexcept {
  zp::Shader* record = RecordAt(zp::shaders, shader);
  return record == nullptr ? zp::kNone : zp::Append(record->surfaces);
}
void zpSetSurfaceColor(int shader, int layer, Element element, float r, float g, float b) noexcept {
  if (zp::ImageSlot* slot = SlotAt(shader, layer, element)) slot->color = {r, g, b};
}
void zpSetSurfaceImage(int shader, int layer, Element element, const char* path, float gamma,
                       const float color[][4], const float uv[][3]) noexcept {
  SetImage(SlotAt(shader, layer, element), path, gamma, color, uv);
}
void zpSetSurfaceMaterial(int shader, int layer, Material material) noexcept {
  if (zp::SurfaceShader* record = zp::LayerAt(shader, layer))
    record->material = static_cast<zp::Material>(material);
}
void zpSetSurfaceSideness(int shader, int layer, Sideness sideness) noexcept {
  if (zp::SurfaceShader* record = zp::LayerAt(shader, layer))
    record->sideness = static_cast<zp::Sideness>(sideness);
}
void zpSetSurfaceVirtualLight(int shader, int layer, bool on) noexcept {
  if (zp::SurfaceShader* record = zp::LayerAt(shader, layer)) record->virtualLight = on;
}

int zpAddDisplacementShader(int shader) noexcept {
  zp::Shader* record = RecordAt(zp::shaders, shader);
  return record == nullptr ? zp::kNone : zp::Append(record->geometry.vector);
}
void zpSetDisplacementImage(int shader, int layer, const char* path, float gamma, const float color[][4],
                            const float uv[][3]) noexcept {
  SetImage(zp::DisplacementAt(shader, layer), path, gamma, color, uv);
}
void zpSetDisplacementLevel(int shader, int layer, int level) noexcept {
  if (zp::ImageSlot* slot = zp::DisplacementAt(shader, layer)) slot->level = level;
}
void zpSetDisplacementVector(int shader, int layer, float x, float y, float z) noexcept {
  if (zp::ImageSlot* slot = zp::DisplacementAt(shader, layer)) slot->color = {x, y, z};
}
