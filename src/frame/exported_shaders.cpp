// Shaders and their layers, as a host fills them.

#include "frame/exported_records.h"
#include "frame/zp.h"

using zp::At;

namespace {

zp::ImageSlot* SlotAt(int shader, int layer, Element element) {
  const int i = static_cast<int>(element);
  zp::SurfaceShader* record = zp::LayerAt(shader, layer);
  return record == nullptr || i < 0 || i >= zp::kElementCount ? nullptr
                                                              : &record->slots[static_cast<std::size_t>(i)];
}

// Intended: the identity flags stay set, so that matrices given here are kept but not applied.
void SetImage(zp::ImageSlot* slot, const char* path, float gamma, const float color[][4],
              const float uv[][3]) {
  if (slot == nullptr) return;
  slot->imageName = zp::Text(path);
  slot->gamma = gamma;
  for (int row = 0; color != nullptr && row < 4; ++row)
    for (int column = 0; column < 4; ++column) slot->colorMatrix.m[column][row] = color[row][column];
  for (int row = 0; uv != nullptr && row < 3; ++row)
    for (int column = 0; column < 3; ++column) slot->uvMatrix.m[row][column] = uv[row][column];
}

}  // namespace

int zpAddShader() { return zp::Append(zp::shaders); }

void zpSetShaderName(int shader, const char* name) {
  if (zp::Shader* record = At(zp::shaders, shader)) record->name = zp::Text(name);
}
void zpSetShaderVisibility(int shader, Visibility visibility) {
  if (zp::Shader* record = At(zp::shaders, shader))
    record->geometry.visibility = static_cast<zp::Visibility>(visibility);
}
void zpSetShaderSmoothAngle(int shader, float degrees) {
  if (zp::Shader* record = At(zp::shaders, shader)) record->geometry.smoothAngle = degrees;
}
void zpSetShaderRoundCorner(int shader, float radius) {
  if (zp::Shader* record = At(zp::shaders, shader)) record->geometry.roundCorner = radius;
}
void zpSetShaderTime(int /*shader*/, float /*time*/) {}

int zpAddSurfaceShader(int shader) {
  zp::Shader* record = At(zp::shaders, shader);
  return record == nullptr ? zp::kNone : zp::Append(record->surfaces);
}
void zpSetSurfaceColor(int shader, int layer, Element element, float r, float g, float b) {
  if (zp::ImageSlot* slot = SlotAt(shader, layer, element)) slot->color = {r, g, b};
}
void zpSetSurfaceImage(int shader, int layer, Element element, const char* path, float gamma,
                       const float color[][4], const float uv[][3]) {
  SetImage(SlotAt(shader, layer, element), path, gamma, color, uv);
}
void zpSetSurfaceMaterial(int shader, int layer, Material material) {
  if (zp::SurfaceShader* record = zp::LayerAt(shader, layer))
    record->material = static_cast<zp::Material>(material);
}
void zpSetSurfaceSideness(int shader, int layer, Sideness sideness) {
  if (zp::SurfaceShader* record = zp::LayerAt(shader, layer))
    record->sideness = static_cast<zp::Sideness>(sideness);
}
void zpSetSurfaceVirtualLight(int shader, int layer, bool on) {
  if (zp::SurfaceShader* record = zp::LayerAt(shader, layer)) record->virtualLight = on;
}

int zpAddDisplacementShader(int shader) {
  zp::Shader* record = At(zp::shaders, shader);
  return record == nullptr ? zp::kNone : zp::Append(record->geometry.vector);
}
void zpSetDisplacementImage(int shader, int layer, const char* path, float gamma, const float color[][4],
                            const float uv[][3]) {
  SetImage(zp::DisplacementAt(shader, layer), path, gamma, color, uv);
}
void zpSetDisplacementLevel(int shader, int layer, int level) {
  if (zp::ImageSlot* slot = zp::DisplacementAt(shader, layer)) slot->level = level;
}
void zpSetDisplacementVector(int shader, int layer, float x, float y, float z) {
  if (zp::ImageSlot* slot = zp::DisplacementAt(shader, layer)) slot->color = {x, y, z};
}
