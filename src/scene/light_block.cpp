#include "scene/blocks.h"
#include "scene/tokens.h"

namespace zp {

void ReadLinkBlock(std::istream& stream, ShaderLink& link) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "shader") link.names.push_back(ReadString(line));
  });
}

void ReadSkyLightSection(std::istream& stream) {
  ResetSky();
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "image") skyLight.image = ReadString(line);
    if (keyword == "backdrop") skyLight.backdrop = ReadString(line);
    if (keyword == "color") ReadTriple(line, skyLight.color);
    if (keyword == "photon") ReadNumber(line, skyLight.photon);
    if (keyword == "north") ReadTriple(line, skyLight.north);
    if (keyword == "zenith") ReadTriple(line, skyLight.zenith);
    if (keyword == "volume_shader") ReadVolumeBlock(stream, globalVolume);
    if (keyword == "sample") ReadNumber(line, skyLight.sample);
    if (keyword == "thickness") ReadNumber(line, skyLight.thickness);
    if (keyword == "turbidity") ReadNumber(line, skyLight.turbidity);
    if (keyword == "stretch") ReadNumber(line, skyLight.stretch);
    if (keyword == "albedo") ReadNumber(line, skyLight.albedo);
    if (keyword == "ior") ReadNumber(line, skyLight.ior);
    if (keyword == "aov") ReadAovBlock(stream, skyLight.aovs.emplace_back());
    if (keyword == "link") ReadLinkBlock(stream, skyLight.link);
  });
}

void ReadGeometryLightSection(std::istream& stream) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "photon") ReadNumber(line, geometryLight.photon);
    if (keyword == "sample") ReadNumber(line, geometryLight.sample);
    if (keyword == "aov") ReadAovBlock(stream, geometryLight.aovs.emplace_back());
    if (keyword == "link") ReadLinkBlock(stream, geometryLight.link);
  });
}

}  // namespace zp
