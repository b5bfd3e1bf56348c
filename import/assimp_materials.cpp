#include "assimp_materials.h"

#include <assimp/GltfMaterial.h>
#include <assimp/ObjMaterial.h>
#include <assimp/material.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

namespace zp {
namespace {

// An uncompressed picture as a TGA file.
std::vector<std::uint8_t> TgaOf(const aiTexture& texture) {
  const unsigned width = texture.mWidth, height = texture.mHeight;
  std::vector<std::uint8_t> bytes = {0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  for (const unsigned side : {width, height}) {
    bytes.push_back(static_cast<std::uint8_t>(side & 255U));
    bytes.push_back(static_cast<std::uint8_t>(side >> 8U & 255U));
  }
  bytes.insert(bytes.end(), {32, 0x28});  // bits a pixel; 8 of alpha, the top row first
  const auto* pixels = reinterpret_cast<const std::uint8_t*>(texture.pcData);
  bytes.insert(bytes.end(), pixels, pixels + std::size_t{4} * width * height);
  return bytes;
}

struct SurfaceReader {
  const aiScene& scene;
  const aiMaterial& material;
  const MaterialRules& rules;
  ImportModel& model;
  ImportSurface surface = {};

  Vec3 Color(const char* key, unsigned type, unsigned index, Vec3 fallback) const {
    aiColor3D color;
    if (material.Get(key, type, index, color) != AI_SUCCESS) return fallback;
    const Vec3 linear = {color.r, color.g, color.b};
    return rules.screenColors ? LinearColor(linear) : MaxOf(linear, kBlack);
  }
  float Number(const char* key, unsigned type, unsigned index, float fallback) const {
    float number = fallback;
    return material.Get(key, type, index, number) == AI_SUCCESS && std::isfinite(number) ? number : fallback;
  }

  std::int32_t Picture(const aiString& name) {
    ImportPicture picture;
    picture.label = name.C_Str();
    if (const aiTexture* texture = scene.GetEmbeddedTexture(name.C_Str()); texture != nullptr) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(texture->pcData);
      const bool isFile = texture->mHeight == 0;
      picture.bytes = isFile ? std::vector<std::uint8_t>(bytes, bytes + texture->mWidth) : TgaOf(*texture);
      const std::string label = texture->mFilename.length > 0 ? texture->mFilename.C_Str() : picture.label;
      picture.label = label.starts_with('*') ? "picture" + label.substr(1) : label;
      if (!isFile) picture.label += ".tga";
      std::replace(picture.label.begin(), picture.label.end(), '\\', '/');
    } else {
      picture.path = std::filesystem::path(picture.label).is_absolute()
                         ? picture.label
                         : (std::filesystem::path(rules.folder) / picture.label).string();
    }
    for (std::size_t i = 0; i < model.pictures.size(); ++i)
      if (model.pictures[i].label == picture.label && model.pictures[i].path == picture.path)
        return static_cast<std::int32_t>(i);
    model.pictures.push_back(std::move(picture));
    return static_cast<std::int32_t>(model.pictures.size() - 1);
  }

  // Scaled, then turned around the middle, then moved.
  static Mat3 UvMatrix(const aiUVTransform& t) {
    const float c = std::cos(t.mRotation), s = std::sin(t.mRotation);
    const float x = t.mScaling.x, y = t.mScaling.y;
    return {{{c * x, -s * y, t.mTranslation.x + 0.5f - 0.5f * (c - s)},
             {s * x, c * y, t.mTranslation.y + 0.5f - 0.5f * (s + c)},
             {0, 0, 1}}};
  }

  PictureUse Use(aiTextureType type) {
    PictureUse use;
    aiString name;
    if (material.GetTexture(type, 0, &name) != AI_SUCCESS || name.length == 0) return use;
    use.picture = Picture(name);
    int uvSet = 0;
    material.Get(AI_MATKEY_UVWSRC(type, 0), uvSet);
    use.uvSet = std::max(uvSet, 0);
    aiUVTransform transform;
    if (material.Get(AI_MATKEY_UVTRANSFORM(type, 0), transform) == AI_SUCCESS)
      use.uvMatrix = UvMatrix(transform);
    return use;
  }

  void ReadPictures() {
    surface.basePicture = Use(aiTextureType_BASE_COLOR);
    if (surface.basePicture.picture == kNone) surface.basePicture = Use(aiTextureType_DIFFUSE);
    if (surface.basePicture.picture != kNone) surface.base = kWhite;
    surface.emissionPicture = Use(aiTextureType_EMISSIVE);
    if (surface.emissionPicture.picture != kNone && surface.emission == kBlack) surface.emission = kWhite;
    surface.normalPicture = Use(aiTextureType_NORMALS);
    surface.maskPicture = Use(aiTextureType_OPACITY);
    surface.metallicPicture = Use(aiTextureType_METALNESS);
    surface.roughnessPicture = Use(aiTextureType_DIFFUSE_ROUGHNESS);
    if (surface.roughnessPicture.picture != kNone) surface.roughness = 1;
    if (surface.metallicPicture.picture != kNone) surface.metallic = 1;
    if (surface.maskPicture.picture != kNone || surface.basePicture.picture != kNone)
      surface.alphaMode = AlphaMode::kBlend;
    // A bump is a normal map here if it looks like one, see ShaderText.
    if (surface.normalPicture.picture == kNone) {
      surface.normalPicture = Use(aiTextureType_HEIGHT);
      surface.normalIsDoubtful = true;
    }
    constexpr std::pair<aiTextureType, const char*> kLeftOut[] = {
        {aiTextureType_SPECULAR, "reflections"},
        {aiTextureType_SHININESS, "gloss"},
        {aiTextureType_DISPLACEMENT, "displacement"},
        {aiTextureType_REFLECTION, "mirrored surroundings"}};
    for (const auto& [type, word] : kLeftOut)
      if (material.GetTextureCount(type) > 0)
        AddLoss(model, "the picture of " + std::string(word) + " of \"" + surface.name + "\" is left out");
    if (material.GetTextureCount(aiTextureType_DIFFUSE) > 1)
      AddLoss(model, "of several pictures of the colour of \"" + surface.name + "\" the first shows");
  }

  // Highlights of a power of the cosine: the width of the lobe that is as wide.
  void ReadReflection() {
    const Vec3 specular = Color(AI_MATKEY_COLOR_SPECULAR, kBlack);
    const float strength = Number(AI_MATKEY_SHININESS_STRENGTH, 1);
    const float power = MaxOf(Number(AI_MATKEY_SHININESS, 0), 0);
    const float most = MaxOf(specular.x, MaxOf(specular.y, specular.z)) * MaxOf(strength, 0);
    const bool hasModel = material.Get(AI_MATKEY_ROUGHNESS_FACTOR, surface.roughness) == AI_SUCCESS;
    if (!hasModel) surface.roughness = std::sqrt(std::sqrt(2 / (power + 2)));
    surface.specular = hasModel ? 1 : MinOf(most, 1);
    if (power <= 0 && !hasModel) surface.specular = 0;  // matt, as these formats mean it
    surface.metallic = Number(AI_MATKEY_METALLIC_FACTOR, 0);
    const bool isMirror = !hasModel && Mean(surface.base) < 0.05f && most > 0.3f && power > 0 &&
                          material.GetTextureCount(aiTextureType_DIFFUSE) == 0;
    if (!isMirror) return;
    surface.metallic = 1;
    surface.base = MinOf(specular * strength, kWhite);
  }

  void ReadOpacity() {
    surface.alpha = std::clamp(Number(AI_MATKEY_OPACITY, 1), 0.0f, 1.0f);
    if (surface.alpha <= 0) {
      AddLoss(model, "\"" + surface.name + "\" is opaque in place of invisible");
      surface.alpha = 1;
    }
    if (surface.alpha < 1) surface.alphaMode = AlphaMode::kBlend;
    int model2 = 0;
    const bool isGlass = material.Get(AI_MATKEY_OBJ_ILLUM, model2) == AI_SUCCESS &&
                         (model2 == 4 || model2 == 6 || model2 == 7 || model2 == 9);
    const float ior = Number(AI_MATKEY_REFRACTI, 1);
    if (ior > 1.01f && ior < 3) surface.ior = ior;
    if (!isGlass || surface.alpha >= 1) return;
    surface.transmission = 1;
    surface.thin = false;
    surface.base = kWhite;
    surface.alpha = 1;
    surface.alphaMode = AlphaMode::kOpaque;
    surface.roughness = 0;
  }

  void Read() {
    surface.name = material.GetName().length > 0 ? material.GetName().C_Str() : "material";
    surface.base = Color(AI_MATKEY_BASE_COLOR, Color(AI_MATKEY_COLOR_DIFFUSE, {0.8f, 0.8f, 0.8f}));
    surface.emission = Color(AI_MATKEY_COLOR_EMISSIVE, kBlack);
    ReadReflection();
    ReadOpacity();
    ReadPictures();
  }
};

}  // namespace

void ReadAssimpMaterial(const aiScene& scene, const aiMaterial& material, const MaterialRules& rules,
                        ImportModel& model) {
  SurfaceReader reader{scene, material, rules, model};
  reader.Read();
  model.surfaces.push_back(std::move(reader.surface));
}

}  // namespace zp
