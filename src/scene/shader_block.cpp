#include "scene/blocks.h"
#include "scene/tokens.h"

namespace zp {
namespace {

void ReadSamplerBlock(std::istream& stream, ImageSlot& slot) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "pixel_sampler") {
      const std::string name = ReadString(line);
      if (name == "nearest") slot.pixelSampler = PixelSampler::kNearest;
      if (name == "stochastic") slot.pixelSampler = PixelSampler::kStochastic;
      if (name == "bilinear") slot.pixelSampler = PixelSampler::kBilinear;
    }
    if (keyword == "gamma") ReadNumber(line, slot.gamma);
    if (keyword == "uv_matrix") {
      ReadMatrix(line, slot.uvMatrix);
      slot.uvMatrixIsIdentity = false;
    }
    if (keyword == "color_matrix") {
      ReadMatrix(line, slot.colorMatrix);
      slot.colorMatrixIsIdentity = false;
    }
  });
}

void ReadElementBlock(std::istream& stream, ImageSlot& slot) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "color") ReadTriple(line, slot.color);
    if (keyword == "fresnel") ReadTriple(line, slot.fresnel);
    if (keyword == "direction") ReadTriple(line, slot.direction);
    if (keyword == "level") ReadNumber(line, slot.level);
    if (keyword == "image") slot.imageName = ReadString(line);
    if (keyword == "fresnel_image") slot.fresnelImageName = ReadString(line);
    if (keyword == "uv_set") slot.uvSetName = ReadString(line);
    if (keyword == "sampler") ReadSamplerBlock(stream, slot);
  });
}

void ReadSurfaceBlock(std::istream& stream, SurfaceShader& surface) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    for (const ElementRow& row : kElements)
      if (keyword == row.keyword) return ReadElementBlock(stream, surface[row.element]);
    if (keyword == "window") surface.window = true;
    if (keyword == "virtual_light") surface.virtualLight = true;
    if (keyword == "conductor") surface.material = Material::kConductor;
    if (keyword == "dielectric") surface.material = Material::kDielectric;
    if (keyword == "thin_dielectric") surface.material = Material::kThinDielectric;
    if (keyword == "sideness") {
      const std::string side = ReadString(line);
      if (side == "face") surface.sideness = Sideness::kFace;
      if (side == "back") surface.sideness = Sideness::kBack;
      if (side == "both") surface.sideness = Sideness::kBoth;
    }
  });
}

// An int that is a switch. A value that cannot be read decides nothing.
template <class Set>
void ReadSwitch(Line& line, Set&& set) {
  std::int32_t value = 0;
  if (line.values >> value) set(value == 1);
}

void ReadGeometryBlock(std::istream& stream, GeometryShader& geometry) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "vector") ReadElementBlock(stream, geometry.vector.emplace_back());
    if (keyword == "radius") ReadElementBlock(stream, geometry.radius.emplace_back());
    if (keyword == "length") ReadElementBlock(stream, geometry.length.emplace_back());
    if (keyword == "height") ReadElementBlock(stream, geometry.height.emplace_back());
    if (keyword == "clip") ReadElementBlock(stream, geometry.clip);
    if (keyword == "round_corner") ReadNumber(line, geometry.roundCorner);
    if (keyword == "smooth_angle") ReadNumber(line, geometry.smoothAngle);
    if (keyword == "reduction") ReadNumber(line, geometry.reduction);
    if (keyword == "flip_face") ReadSwitch(line, [&](bool on) { geometry.flipFace = on; });
    if (keyword == "trivial_connection") ReadSwitch(line, [&](bool on) { geometry.trivialConnection = on; });
    if (keyword == "assign_hair_texture_uv")
      ReadSwitch(line, [&](bool on) { geometry.assignHairTextureUv = on; });
    const auto choose = [&](Visibility visibility, bool when) {
      ReadSwitch(line, [&](bool on) {
        if (on == when) geometry.visibility = visibility;
      });
    };
    if (keyword == "camera_primary") choose(Visibility::kNotCameraPrimary, false);
    if (keyword == "light_primary") choose(Visibility::kNotLightPrimary, false);
    if (keyword == "invisible") choose(Visibility::kInvisible, true);
  });
}

}  // namespace

void ReadVolumeBlock(std::istream& stream, VolumeShader& volume) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "transmittance") ReadTriple(line, volume.transmittance);
    if (keyword == "average_cosine") ReadNumber(line, volume.averageCosine);
    if (keyword == "albedo") ReadTriple(line, volume.albedo);
    if (keyword == "medium_id") ReadNumber(line, volume.mediumId);
  });
}

void ReadShaderSection(std::istream& stream) {
  Shader shader;
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "name") shader.name = ReadString(line);
    if (keyword == "opacity") ReadNumber(line, shader.opacity);
    if (keyword == "surface_shader") ReadSurfaceBlock(stream, shader.surfaces.emplace_back());
    if (keyword == "geometry_shader") ReadGeometryBlock(stream, shader.geometry);
    if (keyword == "volume_shader") ReadVolumeBlock(stream, shader.volume);
  });
  const std::int32_t index = FindOrCreateShader(shader.name);
  shaders[static_cast<std::size_t>(index)] = std::move(shader);
}

}  // namespace zp
