#include "gltf_materials.h"

#include <algorithm>
#include <cmath>

namespace zp {
namespace {

using nlohmann::json;

const json kNothing = json::object();

const json& Member(const json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_object() ? *found : kNothing;
}

const json& Extension(const json& object, const char* name) {
  return Member(Member(object, "extensions"), name);
}

Vec3 ColorOf(const json& object, const char* name, Vec3 fallback) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_array() || found->size() < 3) return fallback;
  return {(*found)[0].get<float>(), (*found)[1].get<float>(), (*found)[2].get<float>()};
}

std::string NameOf(const json& object, const char* kind, std::size_t index) {
  const std::string name = object.value("name", "");
  return name.empty() ? kind + std::to_string(index) : name;
}

void ReadImages(const GltfFile& file, ImportModel& model) {
  const json images = file.text.value("images", json::array());
  for (std::size_t i = 0; i < images.size(); ++i) {
    ImportPicture& picture = model.pictures.emplace_back();
    picture.label = NameOf(images[i], "picture", i);
    if (images[i].contains("bufferView")) {
      const std::span<const std::uint8_t> bytes = GltfView(file, images[i]["bufferView"].get<std::int64_t>());
      picture.bytes.assign(bytes.begin(), bytes.end());
    } else if (images[i].contains("uri")) {
      const auto uri = images[i]["uri"].get<std::string>();
      picture.bytes = GltfUri(file, uri, &picture.path);
      if (!picture.path.empty()) picture.label = uri;
    }
  }
}

// The image of a texture; a format that nobody reads only where there is no other.
std::int32_t ImageOf(const json& texture) {
  if (const json& webp = Extension(texture, "EXT_texture_webp"); webp.contains("source"))
    return webp["source"].get<std::int32_t>();
  if (texture.contains("source")) return texture["source"].get<std::int32_t>();
  for (const char* extension : {"KHR_texture_basisu", "EXT_texture_avif", "MSFT_texture_dds"})
    if (const json& other = Extension(texture, extension); other.contains("source"))
      return other["source"].get<std::int32_t>();
  return kNone;
}

Mat3 Times(const Mat3& a, const Mat3& b) {
  Mat3 product = {};
  for (int row = 0; row < 3; ++row)
    for (int column = 0; column < 3; ++column)
      for (int k = 0; k < 3; ++k) product.m[row][column] += a.m[row][k] * b.m[k][column];
  return product;
}

// KHR_texture_transform, where v runs down, for uvs of which v runs up.
Mat3 UvMatrix(const json& transform) {
  const auto pair = [&](const char* name, float fallback) {
    const auto found = transform.find(name);
    const bool given = found != transform.end() && found->is_array() && found->size() >= 2;
    return given ? Vec2{(*found)[0].get<float>(), (*found)[1].get<float>()} : Vec2{fallback, fallback};
  };
  const Vec2 offset = pair("offset", 0), scale = pair("scale", 1);
  const float angle = transform.value("rotation", 0.0f);
  const float c = std::cos(angle), s = std::sin(angle);
  const Mat3 flip = {{{1, 0, 0}, {0, -1, 1}, {0, 0, 1}}};
  const Mat3 matrix = {
      {{c * scale.x, s * scale.y, offset.x}, {-s * scale.x, c * scale.y, offset.y}, {0, 0, 1}}};
  return Times(flip, Times(matrix, flip));
}

struct MaterialReader {
  const GltfFile& file;
  ImportModel& model;

  PictureUse Use(const json& owner, const char* name) {
    const json& info = Member(owner, name);
    PictureUse use;
    if (!info.contains("index")) return use;
    const json& texture = GltfItem(file, "textures", info["index"].get<std::int64_t>());
    use.picture = ImageOf(texture);
    if (use.picture != kNone) GltfItem(file, "images", use.picture);
    const json& transform = Extension(info, "KHR_texture_transform");
    use.uvSet = transform.value("texCoord", info.value("texCoord", 0));
    if (!transform.empty()) use.uvMatrix = UvMatrix(transform);
    if (!texture.contains("sampler")) return use;
    const json& sampler = GltfItem(file, "samplers", texture["sampler"].get<std::int64_t>());
    use.nearest = sampler.value("magFilter", 9729) == 9728;
    for (const char* wrap : {"wrapS", "wrapT"})
      if (sampler.value(wrap, 10497) == 33648)
        AddLoss(model, "the picture \"" +
                           model.pictures[static_cast<std::size_t>(std::max(use.picture, 0))].label +
                           "\" repeats without being mirrored");
    return use;
  }

  void ReadRoughMetal(const json& material, ImportSurface& surface) {
    const json& pbr = Member(material, "pbrMetallicRoughness");
    surface.base = ColorOf(pbr, "baseColorFactor", kWhite);
    if (const auto factor = pbr.find("baseColorFactor"); factor != pbr.end() && factor->size() > 3)
      surface.alpha = (*factor)[3].get<float>();
    surface.basePicture = Use(pbr, "baseColorTexture");
    surface.metallic = pbr.value("metallicFactor", 1.0f);
    surface.roughness = pbr.value("roughnessFactor", 1.0f);
    surface.metallicPicture = surface.roughnessPicture = Use(pbr, "metallicRoughnessTexture");
  }

  // A dielectric's index tells the reflection of head-on light; colours beyond are those of a metal.
  void ReadSpecularGloss(const json& gloss, ImportSurface& surface) {
    const Vec3 specular = ColorOf(gloss, "specularFactor", kWhite);
    const Vec3 diffuse = ColorOf(gloss, "diffuseFactor", kWhite);
    if (const auto factor = gloss.find("diffuseFactor"); factor != gloss.end() && factor->size() > 3)
      surface.alpha = (*factor)[3].get<float>();
    surface.basePicture = Use(gloss, "diffuseTexture");
    surface.metallicPicture = surface.roughnessPicture = {};
    const bool hasPicture = gloss.contains("specularGlossinessTexture");
    const float reflected = hasPicture ? 0.04f : MaxOf(specular.x, MaxOf(specular.y, specular.z));
    surface.roughness = hasPicture ? 0.5f : 1 - gloss.value("glossinessFactor", 1.0f);
    if (hasPicture)
      AddLoss(model, "the picture of reflection and gloss of \"" + surface.name + "\" is left out");
    const bool isMetal = reflected > 0.25f && Mean(diffuse) < Mean(specular);
    surface.metallic = isMetal ? 1.0f : 0.0f;
    surface.base = isMetal ? specular : diffuse * (1 - reflected);
    if (isMetal && surface.basePicture.picture != kNone) surface.basePicture = {};
    if (isMetal) return;
    const float root = std::sqrt(std::clamp(reflected, 0.0f, 0.9f));
    surface.ior = (1 + root) / (1 - root);
    surface.specular = reflected > 0 ? 1.0f : 0.0f;
  }

  void ReadAlpha(const json& material, ImportSurface& surface) {
    const std::string mode = material.value("alphaMode", "OPAQUE");
    surface.alphaMode = mode == "MASK"    ? AlphaMode::kMask
                        : mode == "BLEND" ? AlphaMode::kBlend
                                          : AlphaMode::kOpaque;
    surface.alphaCutoff = material.value("alphaCutoff", 0.5f);
  }

  void ReadGlass(const json& material, ImportSurface& surface) {
    const json& transmission = Extension(material, "KHR_materials_transmission");
    surface.transmission = transmission.value("transmissionFactor", 0.0f);
    if (transmission.contains("transmissionTexture"))
      AddLoss(model, "the picture of transmission of \"" + surface.name + "\" is left out");
    const json& volume = Extension(material, "KHR_materials_volume");
    surface.thin = !(volume.value("thicknessFactor", 0.0f) > 0);
    const float distance = volume.value("attenuationDistance", 0.0f);
    const Vec3 color = ColorOf(volume, "attenuationColor", kWhite);
    if (distance > 0)
      surface.transmittance = {std::pow(color.x, 1 / distance), std::pow(color.y, 1 / distance),
                               std::pow(color.z, 1 / distance)};
  }

  void ReadExtras(const json& material, ImportSurface& surface) {
    surface.ior = Extension(material, "KHR_materials_ior").value("ior", surface.ior);
    if (surface.ior < 1) surface.ior = surface.ior == 0 ? 1000.0f : 1.0f;  // 0 stands for a full reflection
    surface.emission = surface.emission *
                       Extension(material, "KHR_materials_emissive_strength").value("emissiveStrength", 1.0f);
    const json& specular = Extension(material, "KHR_materials_specular");
    surface.specular *= specular.value("specularFactor", 1.0f);
    if (specular.contains("specularTexture") || specular.contains("specularColorTexture") ||
        specular.contains("specularColorFactor"))
      AddLoss(model, "the colour of reflections of \"" + surface.name + "\" is white");
    const json& coat = Extension(material, "KHR_materials_clearcoat");
    surface.coat = coat.value("clearcoatFactor", 0.0f);
    if (surface.coat > 0)
      AddLoss(model, "the coat of \"" + surface.name + "\" is sharp, without picture" +
                         (surface.metallic > 0 ? ", and left out over metal" : ""));
    surface.unlit = Member(material, "extensions").contains("KHR_materials_unlit");
    constexpr std::pair<const char*, const char*> kLeftOut[] = {
        {"KHR_materials_sheen", "sheen"},
        {"KHR_materials_iridescence", "iridescence"},
        {"KHR_materials_anisotropy", "anisotropy"},
        {"KHR_materials_dispersion", "dispersion"},
        {"KHR_materials_diffuse_transmission", "diffuse transmission"},
        {"KHR_materials_variants", "variants"}};
    for (const auto& [extension, word] : kLeftOut)
      if (Member(material, "extensions").contains(extension))
        AddLoss(model, "the " + std::string(word) + " of \"" + surface.name + "\" is left out");
  }

  void Read(const json& material, ImportSurface& surface) {
    ReadRoughMetal(material, surface);
    if (const json& gloss = Extension(material, "KHR_materials_pbrSpecularGlossiness"); !gloss.empty())
      ReadSpecularGloss(gloss, surface);
    surface.emission = ColorOf(material, "emissiveFactor", kBlack);
    surface.emissionPicture = Use(material, "emissiveTexture");
    surface.normalPicture = Use(material, "normalTexture");
    surface.normalScale = Member(material, "normalTexture").value("scale", 1.0f);
    surface.twoSided = material.value("doubleSided", false);
    ReadAlpha(material, surface);
    ReadGlass(material, surface);
    ReadExtras(material, surface);
  }
};

}  // namespace

void ReadGltfMaterials(const GltfFile& file, ImportModel& model) {
  ReadImages(file, model);
  MaterialReader reader{file, model};
  const json materials = file.text.value("materials", json::array());
  for (std::size_t i = 0; i < materials.size(); ++i) {
    ImportSurface surface;
    surface.name = NameOf(materials[i], "material", i);
    reader.Read(materials[i], surface);
    model.surfaces.push_back(std::move(surface));
  }
}

}  // namespace zp
