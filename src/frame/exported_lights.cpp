// The sky light and the geometry light, as a host sets them.

#include "frame/exported_records.h"
#include "frame/zp.h"
#include "lights/lights.h"

using zp::At;
using zp::geometryLight;
using zp::skyLight;

void zpSetSkyLightColor(float r, float g, float b) { skyLight.color = {r, g, b}; }
void zpSetSkyLightNorth(float x, float y, float z) { skyLight.north = {x, y, z}; }
void zpSetSkyLightZenith(float x, float y, float z) { skyLight.zenith = {x, y, z}; }
void zpSetSkyLightImage(const char* path) { skyLight.image = zp::Text(path); }
void zpSetSkyLightBackdrop(const char* path) { skyLight.backdrop = zp::Text(path); }
void zpSetSkyLightSample(int sample) { skyLight.sample = sample; }
void zpSetSkyLightPhoton(int photon) { skyLight.photon = photon; }
void zpSetSkyLightShaderLink(int shader) { skyLight.link.shaders.push_back(shader); }
int zpAddSkyLightAOV() { return zp::Append(skyLight.aovs); }
void zpSetSkyLightAOVChannel(int aov, Channel channel) {
  if (zp::Aov* record = At(skyLight.aovs, aov)) record->channel |= channel;
}
void zpSetSkyLightAOVName(int aov, const char* name) {
  if (zp::Aov* record = At(skyLight.aovs, aov)) record->image.fileName = zp::Text(name);
}

void zpSetGeometryLightSample(int sample) { geometryLight.sample = sample; }
void zpSetGeometryLightPhoton(int photon) { geometryLight.photon = photon; }
void zpSetGeometryLightShaderLink(int shader) { geometryLight.link.shaders.push_back(shader); }
int zpAddGeometryLightAOV() { return zp::Append(geometryLight.aovs); }
void zpSetGeometryLightAOVChannel(int aov, Channel channel) {
  if (zp::Aov* record = At(geometryLight.aovs, aov)) record->channel |= channel;
}
void zpSetGeometryLightAOVName(int aov, const char* name) {
  if (zp::Aov* record = At(geometryLight.aovs, aov)) record->image.fileName = zp::Text(name);
}
void zpSetGeometryLightAOVShaderName(int aov, const char* name) {
  if (zp::Aov* record = At(geometryLight.aovs, aov)) record->shaderName = zp::Text(name);
}
