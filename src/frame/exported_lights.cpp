// All lights, as a host sets them.

#include <type_traits>

#include "frame/exported_records.h"
#include "frame/zp.h"
#include "lights/lights.h"

using zp::At;
using zp::geometryLight;
using zp::parallelLights;
using zp::pointLights;
using zp::skyLight;

namespace {

// Both kinds of the Gaffer share these fields and their rules.
template <class Kind>
int AddAov(std::vector<Kind>& lights, int light) {
  Kind* record = RecordAt(lights, light);
  return record == nullptr ? zp::kNone : zp::Append(record->aovs);
}
template <class Kind>
zp::Aov* AovAt(std::vector<Kind>& lights, int light, int aov) {
  Kind* record = RecordAt(lights, light);
  return record == nullptr ? nullptr : RecordAt(record->aovs, aov);
}
template <class Kind>
void Link(std::vector<Kind>& lights, int light, int shader) {
  if (Kind* record = RecordAt(lights, light)) record->link.shaders.push_back(shader);
}
template <class Kind, class Owner, class Value>
void Set(std::vector<Kind>& lights, int light, Value Owner::*field, std::type_identity_t<Value> value) {
  if (Kind* record = RecordAt(lights, light)) record->*field = value;
}

}  // namespace

int zpAddPointLight() noexcept { return zp::Append(pointLights); }
void zpSetPointLightColor(int light, float r, float g, float b) noexcept {
  Set(pointLights, light, &zp::Light::color, {r, g, b});
}
void zpSetPointLightPosition(int light, float x, float y, float z) noexcept {
  Set(pointLights, light, &zp::PointLight::position, {x, y, z});
}
void zpSetPointLightDirection(int light, float x, float y, float z) noexcept {
  Set(pointLights, light, &zp::PointLight::direction, {x, y, z});
}
void zpSetPointLightBlur(int light, float radius) noexcept {
  Set(pointLights, light, &zp::Light::blur, radius);
}
void zpSetPointLightOffset(int light, float offset) noexcept {
  Set(pointLights, light, &zp::Light::offset, offset);
}
void zpSetPointLightInnerAngle(int light, float degrees) noexcept {
  Set(pointLights, light, &zp::PointLight::innerAngle, degrees);
}
void zpSetPointLightOuterAngle(int light, float degrees) noexcept {
  Set(pointLights, light, &zp::PointLight::outerAngle, degrees);
}
void zpSetPointLightSample(int light, int sample) noexcept {
  Set(pointLights, light, &zp::Light::sample, sample);
}
void zpSetPointLightPhoton(int light, int photon) noexcept {
  Set(pointLights, light, &zp::Light::photon, std::int64_t{photon});
}
void zpSetPointLightShaderLink(int light, int shader) noexcept { Link(pointLights, light, shader); }
int zpAddPointLightAOV(int light) noexcept { return AddAov(pointLights, light); }
void zpSetPointLightAOVChannel(int light, int aov, Channel channel) noexcept {
  if (zp::Aov* record = AovAt(pointLights, light, aov)) record->channel |= channel;
}
void zpSetPointLightAOVName(int light, int aov, const char* name) noexcept {
  if (zp::Aov* record = AovAt(pointLights, light, aov)) record->image.fileName = zp::Text(name);
}

int zpAddParallelLight() noexcept { return zp::Append(parallelLights); }
void zpSetParallelLightColor(int light, float r, float g, float b) noexcept {
  Set(parallelLights, light, &zp::Light::color, {r, g, b});
}
void zpSetParallelLightDirection(int light, float x, float y, float z) noexcept {
  Set(parallelLights, light, &zp::Light::zAxis, {x, y, z});
}
void zpSetParallelLightBlur(int light, float degrees) noexcept {
  Set(parallelLights, light, &zp::Light::blur, degrees);
}
void zpSetParallelLightOffset(int light, float offset) noexcept {
  Set(parallelLights, light, &zp::Light::offset, offset);
}
void zpSetParallelLightSample(int light, int sample) noexcept {
  Set(parallelLights, light, &zp::Light::sample, sample);
}
void zpSetParallelLightPhoton(int light, int photon) noexcept {
  Set(parallelLights, light, &zp::Light::photon, std::int64_t{photon});
}
void zpSetParallelLightShaderLink(int light, int shader) noexcept { Link(parallelLights, light, shader); }
int zpAddParallelLightAOV(int light) noexcept { return AddAov(parallelLights, light); }
void zpSetParallelLightAOVChannel(int light, int aov, Channel channel) noexcept {
  if (zp::Aov* record = AovAt(parallelLights, light, aov)) record->channel |= channel;
}
void zpSetParallelLightAOVName(int light, int aov, const char* name) noexcept {
  if (zp::Aov* record = AovAt(parallelLights, light, aov)) record->image.fileName = zp::Text(name);
}

void zpSetSkyLightColor(float r, float g, float b) noexcept { skyLight.color = {r, g, b}; }
void zpSetSkyLightNorth(float x, float y, float z) noexcept { skyLight.north = {x, y, z}; }
void zpSetSkyLightZenith(float x, float y, float z) noexcept { skyLight.zenith = {x, y, z}; }
void zpSetSkyLightImage(const char* path) noexcept { skyLight.image = zp::Text(path); }
void zpSetSkyLightBackdrop(const char* path) noexcept { skyLight.backdrop = zp::Text(path); }
void zpSetSkyLightSample(int sample) noexcept { skyLight.sample = sample; }
void zpSetSkyLightPhoton(int photon) noexcept { skyLight.photon = photon; }
void zpSetSkyLightShaderLink(int shader) noexcept { skyLight.link.shaders.push_back(shader); }
int zpAddSkyLightAOV() noexcept { return zp::Append(skyLight.aovs); }
void zpSetSkyLightAOVChannel(int aov, Channel channel) noexcept {
  if (zp::Aov* record = RecordAt(skyLight.aovs, aov)) record->channel |= channel;
}
void zpSetSkyLightAOVName(int aov, const char* name) noexcept {
  if (zp::Aov* record = RecordAt(skyLight.aovs, aov)) record->image.fileName = zp::Text(name);
}

void zpSetGeometryLightSample(int sample) noexcept { geometryLight.sample = sample; }
void zpSetGeometryLightPhoton(int photon) noexcept { geometryLight.photon = photon; }
void zpSetGeometryLightShaderLink(int shader) noexcept { geometryLight.link.shaders.push_back(shader); }
int zpAddGeometryLightAOV() noexcept { return zp::Append(geometryLight.aovs); }
void zpSetGeometryLightAOVChannel(int aov, Channel channel) noexcept {
  if (zp::Aov* record = RecordAt(geometryLight.aovs, aov)) record->channel |= channel;
}
void zpSetGeometryLightAOVName(int aov, const char* name) noexcept {
  if (zp::Aov* record = RecordAt(geometryLight.aovs, aov)) record->image.fileName = zp::Text(name);
}
void zpSetGeometryLightAOVShaderName(int aov, const char* name) noexcept {
  if (zp::Aov* record = RecordAt(geometryLight.aovs, aov)) record->shaderName = zp::Text(name);
}
