#include "scene/blocks.h"

namespace zp {
namespace {

constexpr Choice<PixelSampler> kPixelSamplers[] = {
    {"nearest", PixelSampler::kNearest},
    {"stochastic", PixelSampler::kStochastic},
    {"bilinear", PixelSampler::kBilinear},
};
constexpr Choice<Material> kMaterials[] = {
    {"conductor", Material::kConductor},
    {"dielectric", Material::kDielectric},
    {"thin_dielectric", Material::kThinDielectric},
};
constexpr Choice<Sideness> kSides[] = {
    {"face", Sideness::kFace},
    {"back", Sideness::kBack},
    {"both", Sideness::kBoth},
};

// A keyword that acts alone.
template <class T>
bool Set(T& target, T value) {
  target = value;
  return true;
}

bool ReadSamplerBlock(SceneText& text, ImageSlot& slot, NotedSlot& noted) {
  ReadBlock(text, "sampler", [&](const Keyword& keyword, Line& line) {
    if (keyword == "pixel_sampler") return ReadChoice(line, kPixelSamplers, slot.pixelSampler);
    if (keyword == "gamma") return Set(noted.gammaStated, true) && ReadNumber(line, slot.gamma);
    if (keyword == "uv_matrix") {
      slot.uvMatrixIsIdentity = false;
      return ReadMatrix(line, slot.uvMatrix);
    }
    if (keyword == "color_matrix") {
      slot.colorMatrixIsIdentity = false;
      return ReadMatrix(line, slot.colorMatrix);
    }
    return false;
  });
  return true;
}

bool ReadElementBlock(SceneText& text, std::string_view name, ImageSlot& slot) {
  NotedSlot noted;
  noted.element = name;
  const bool displaces = name == "vector";
  const bool scales = name == "radius" || name == "length";
  ReadBlock(text, name, [&](const Keyword& keyword, Line& line) {
    if (keyword == "color") {
      noted.colorStated = true;
      return ReadTriple(line, slot.color);
    }
    if (keyword == "fresnel") return ReadTriple(line, slot.fresnel) && NoteIdle(line, slot.fresnel == kBlack);
    if (keyword == "direction")
      return ReadTriple(line, slot.direction) && (displaces || NoteIdle(line, slot.direction == kBlack));
    if (keyword == "level") {
      const IdleIn formats = name == "height" ? IdleIn::kFormat1 : IdleIn::kAll;
      return ReadNumber(line, slot.level) && (displaces || NoteIdle(line, slot.level == 1, formats));
    }
    if (keyword == "image") {
      noted.image = line.Place();
      return ReadName(line, NameKind::kImage, slot.imageName);
    }
    if (keyword == "fresnel_image")
      return ReadName(line, NameKind::kImage, slot.fresnelImageName) && NoteIdle(line, false);
    if (keyword == "uv_set") {
      noted.uvSet = line.Place();
      return ReadString(line, slot.uvSetName) && NoteIdle(line, slot.uvSetName == "uv", IdleIn::kFormat1);
    }
    if (keyword == "sampler") return ReadSamplerBlock(text, slot, noted);
    return false;
  });
  // A picture alone counts as it is. These blocks do nothing in format 1.
  if (!noted.colorStated && (scales || (name == "height" && !slot.imageName.empty()))) slot.color = kWhite;
  if (text.notes && noted.image.line > 0 && !slot.imageName.empty()) {
    noted.slot = slot;
    text.notes->slots.push_back(std::move(noted));
  }
  return true;
}

bool ReadSurfaceBlock(SceneText& text, SurfaceShader& surface, NotedShader& noted) {
  ReadBlock(text, "surface_shader", [&](const Keyword& keyword, Line& line) {
    for (const ElementRow& row : kElements)
      if (keyword == row.keyword)
        return ReadElementBlock(text, row.keyword, surface[row.element]) &&
               (row.element != Element::kThickness ||
                NoteIdle(line, surface[row.element].color == row.color));
    for (const Choice<Material>& material : kMaterials)
      if (keyword == material.word) return Set(surface.material, material.value);
    if (keyword == "window") return Set(surface.window, true);
    if (keyword == "shadow_catcher") {
      NoteOfFormat2(line);
      return Set(surface.shadowCatcher, true);
    }
    if (keyword == "virtual_light") {
      noted.virtualLight = line.Place();
      return Set(surface.virtualLight, true);
    }
    if (keyword == "sideness") return ReadChoice(line, kSides, surface.sideness);
    return false;
  });
  return true;
}

// An int that is a switch. A value that cannot be read decides nothing.
template <class Decide>
bool ReadSwitch(Line& line, Decide&& decide) {
  std::int32_t value = 0;
  if (ReadValue(line, value)) decide(value == 1);
  return true;
}
bool ReadSwitch(Line& line, bool& target) {
  return ReadSwitch(line, [&](bool on) { target = on; });
}

bool ReadGeometryBlock(SceneText& text, GeometryShader& geometry, NotedShader& noted) {
  ReadBlock(text, "geometry_shader", [&](const Keyword& keyword, Line& line) {
    const auto readIdle = [&](ImageSlot& slot, std::string_view name, IdleIn formats = IdleIn::kFormat1) {
      return ReadElementBlock(text, name, slot) && NoteIdle(line, false, formats);
    };
    if (keyword == "vector") {
      if (noted.vector.line == 0) noted.vector = line.Place();
      return ReadElementBlock(text, "vector", geometry.vector.emplace_back());
    }
    if (keyword == "radius") return readIdle(geometry.radius.emplace_back(), "radius");
    if (keyword == "length") return readIdle(geometry.length.emplace_back(), "length");
    if (keyword == "height") {
      if (noted.height.line == 0) noted.height = line.Place();
      return readIdle(geometry.height.emplace_back(), "height");
    }
    if (keyword == "clip") return readIdle(geometry.clip, "clip");
    if (keyword == "round_corner")
      return ReadNumber(line, geometry.roundCorner) && NoteIdle(line, geometry.roundCorner >= 1);
    if (keyword == "smooth_angle") return ReadNumber(line, geometry.smoothAngle);
    if (keyword == "reduction")
      return ReadNumber(line, geometry.reduction) && NoteIdle(line, geometry.reduction >= 1);
    if (keyword == "flip_face") return ReadSwitch(line, geometry.flipFace);
    if (keyword == "trivial_connection")
      return ReadSwitch(line, geometry.trivialConnection) && NoteIdle(line, !geometry.trivialConnection);
    if (keyword == "assign_hair_texture_uv")
      return ReadSwitch(line, geometry.assignHairTextureUv) && NoteIdle(line, !geometry.assignHairTextureUv);
    const auto choose = [&](Visibility visibility, bool when) {
      return ReadSwitch(line, [&](bool on) {
        if (on == when) geometry.visibility = visibility;
      });
    };
    if (keyword == "camera_primary") return choose(Visibility::kNotCameraPrimary, false);
    if (keyword == "light_primary") return choose(Visibility::kNotLightPrimary, false);
    if (keyword == "invisible") return choose(Visibility::kInvisible, true);
    return false;
  });
  return true;
}

}  // namespace

bool ReadVolumeBlock(SceneText& text, VolumeShader& volume) {
  ReadBlock(text, "volume_shader", [&](const Keyword& keyword, Line& line) {
    if (keyword == "transmittance") return ReadTriple(line, volume.transmittance);
    if (keyword == "average_cosine")
      return ReadNumber(line, volume.averageCosine) && NoteIdle(line, volume.averageCosine == 0);
    if (keyword == "albedo")
      return ReadTriple(line, volume.albedo) && NoteIdle(line, volume.albedo == kBlack);
    if (keyword == "medium_id")
      return ReadNumber(line, volume.mediumId) && NoteIdle(line, volume.mediumId == 0);
    return false;
  });
  return true;
}

void ReadShaderSection(SceneText& text) {
  Shader shader;
  NotedShader noted;
  noted.place = text.Here();
  ReadBlock(text, "shader", [&](const Keyword& keyword, Line& line) {
    if (keyword == "name") {
      noted.named = true;
      return ReadString(line, shader.name);
    }
    if (keyword == "opacity")
      return ReadNumber(line, shader.opacity) && NoteIdle(line, shader.opacity == 1, IdleIn::kFormat1);
    if (keyword == "group") return ReadString(line, shader.group);
    if (keyword == "surface_shader") {
      if (text.notes) noted.layers.push_back(line.Place());
      return ReadSurfaceBlock(text, shader.surfaces.emplace_back(), noted);
    }
    if (keyword == "geometry_shader") return ReadGeometryBlock(text, shader.geometry, noted);
    if (keyword == "volume_shader") return ReadVolumeBlock(text, shader.volume);
    return false;
  });
  if (text.notes) {
    noted.shader = shader;
    text.notes->shaders.push_back(std::move(noted));
  }
  const std::int32_t index = FindOrCreateShader(shader.name);
  ShaderAt(index) = std::move(shader);
}

}  // namespace zp
