#include "scene/blocks.h"

namespace zp {

bool ReadLinkBlock(SceneText& text, ShaderLink& link) {
  ReadBlock(text, "link", [&](const Keyword& keyword, Line& line) {
    if (keyword == "shader") return ReadName(line, NameKind::kLinkedShader, link.names.emplace_back());
    return false;
  });
  return true;
}

void ReadPointLightSection(SceneText& text) {
  PointLight& light = pointLights.emplace_back();
  ReadBlock(text, "point_light", {"position"}, [&](const Keyword& keyword, Line& line) {
    if (keyword == "color") return ReadTriple(line, light.color);
    if (keyword == "position") return ReadTriple(line, light.position);
    if (keyword == "blur") return ReadNumber(line, light.blur);
    if (keyword == "sample") return ReadNumber(line, light.sample);
    if (keyword == "photon") return ReadNumber(line, light.photon);
    if (keyword == "direction") return ReadTriple(line, light.direction);
    if (keyword == "inner_angle") return ReadNumber(line, light.innerAngle);
    if (keyword == "outer_angle") return ReadNumber(line, light.outerAngle);
    if (keyword == "offset") return ReadNumber(line, light.offset);
    if (keyword == "ior") return ReadNumber(line, light.ior);
    if (keyword == "aov") return ReadAovBlock(text, light.aovs.emplace_back(), AovOwner::kLight);
    if (keyword == "link") return ReadLinkBlock(text, light.link);
    if (keyword == "group") return ReadString(line, light.group);
    return false;
  });
}

void ReadParallelLightSection(SceneText& text) {
  ParallelLight& light = parallelLights.emplace_back();
  ReadBlock(text, "parallel_light", {"direction"}, [&](const Keyword& keyword, Line& line) {
    if (keyword == "color") return ReadTriple(line, light.color);
    if (keyword == "blur") return ReadNumber(line, light.blur);
    if (keyword == "sample") return ReadNumber(line, light.sample);
    if (keyword == "photon") return ReadNumber(line, light.photon);
    if (keyword == "direction") return ReadTriple(line, light.zAxis);
    if (keyword == "ior") return ReadNumber(line, light.ior);
    if (keyword == "offset") return ReadNumber(line, light.offset);
    if (keyword == "aov") return ReadAovBlock(text, light.aovs.emplace_back(), AovOwner::kLight);
    if (keyword == "link") return ReadLinkBlock(text, light.link);
    if (keyword == "group") return ReadString(line, light.group);
    return false;
  });
}

void ReadSkyLightSection(SceneText& text) {
  ResetSky();
  ReadBlock(text, "sky_light", [&](const Keyword& keyword, Line& line) {
    if (keyword == "image") return ReadName(line, NameKind::kSkyImage, skyLight.image);
    if (keyword == "backdrop") return ReadName(line, NameKind::kImage, skyLight.backdrop);
    if (keyword == "color") return ReadTriple(line, skyLight.color);
    if (keyword == "photon") return ReadNumber(line, skyLight.photon);
    if (keyword == "north") return ReadTriple(line, skyLight.north);
    if (keyword == "zenith") return ReadTriple(line, skyLight.zenith);
    if (keyword == "volume_shader") return ReadVolumeBlock(text, globalVolume);
    if (keyword == "sample") return ReadNumber(line, skyLight.sample);
    if (keyword == "thickness")
      return ReadNumber(line, skyLight.thickness) && NoteIdle(line, skyLight.thickness == 1000);
    if (keyword == "turbidity") return ReadNumber(line, skyLight.turbidity);
    if (keyword == "stretch")
      return ReadNumber(line, skyLight.stretch) && NoteIdle(line, skyLight.stretch == 0.1f);
    if (keyword == "albedo") return ReadNumber(line, skyLight.albedo);
    if (keyword == "ior") return ReadNumber(line, skyLight.ior);
    if (keyword == "aov") return ReadAovBlock(text, skyLight.aovs.emplace_back(), AovOwner::kSky);
    if (keyword == "link") return ReadLinkBlock(text, skyLight.link);
    if (keyword == "group") return ReadString(line, skyLight.group);
    return false;
  });
}

void ReadGeometryLightSection(SceneText& text) {
  ReadBlock(text, "geometry_light", [&](const Keyword& keyword, Line& line) {
    if (keyword == "photon") return ReadNumber(line, geometryLight.photon);
    if (keyword == "sample") return ReadNumber(line, geometryLight.sample);
    if (keyword == "aov")
      return ReadAovBlock(text, geometryLight.aovs.emplace_back(), AovOwner::kGeometryLight);
    if (keyword == "link") return ReadLinkBlock(text, geometryLight.link);
    if (keyword == "group") return ReadString(line, geometryLight.group);
    return false;
  });
}

}  // namespace zp
