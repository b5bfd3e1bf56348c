#include "shaders.h"

#include <algorithm>
#include <cmath>

#include "scene/scene_writer.h"

namespace zp {
namespace {

constexpr float kScreenGamma = 2.2f;
constexpr float kMirrorIor = 1000;   // reflects nearly all: what is left has the metal's colour
constexpr float kShiningIor = 20;    // of a metal that emits, too: its light is what is not reflected
constexpr float kSharpest = 0.002f;  // width of a lobe that is as well a mirror

Mat4 EachRow(float x, float y, float z, float w) {
  return {{{x, y, z, w}, {x, y, z, w}, {x, y, z, w}, {0, 0, 0, 1}}};
}

float HeadOnReflection(float ior) { return (ior - 1) * (ior - 1) / ((ior + 1) * (ior + 1)); }

struct ElementText {
  Vec3 color = kWhite;
  PictureUse use;
  float gamma = 1;
  const Mat4* matrix = nullptr;  // of colours
};

struct ShaderWriter {
  const ImportSurface& surface;
  const ImportModel& model;
  const PictureShelf& shelf;
  SceneWriter text = {};

  void Element(const char* word, const ElementText& element) {
    OpenBlock(text, word);
    WriteTriple(text, "color", element.color);
    if (element.use.picture != kNone && !(element.color == kBlack)) {
      WriteString(text, "image", model.pictures[static_cast<std::size_t>(element.use.picture)].name);
      Sampler(element);
    }
    CloseBlock(text);
  }
  void Element(const char* word, Vec3 color) { Element(word, ElementText{color, {}}); }
  void Element(const char* word, float value) { Element(word, Vec3{value, value, value}); }

  void Sampler(const ElementText& element) {
    OpenBlock(text, "sampler");
    if (element.use.nearest) WriteString(text, "pixel_sampler", "nearest");
    WriteNumbers(text, "gamma", {element.gamma});
    if (!(element.use.uvMatrix == kUnitMat3))
      WriteNumbers(text, "uv_matrix", {&element.use.uvMatrix.m[0][0], 9});
    if (element.matrix != nullptr) WriteNumbers(text, "color_matrix", {&element.matrix->m[0][0], 16});
    CloseBlock(text);
  }

  float Width() const { return surface.roughness * surface.roughness; }
  bool IsSharp() const { return Width() < kSharpest; }

  // The lobe of what is reflected, sharp or blurred.
  void Reflection(Vec3 color, const PictureUse& use) {
    Element(IsSharp() ? "specular" : "glossy", {color, use, kScreenGamma});
    if (IsSharp()) return;
    const Mat4 green = EachRow(0, 1, 0, 0);  // gamma acts first: the width is the square of the roughness
    const float width = Width();
    Element("roughness", {{width, width, width}, surface.roughnessPicture, 2, &green});
  }

  void Normal() {
    if (surface.normalPicture.picture == kNone) return;
    const float s = surface.normalScale;
    const Mat4 range = {{{2 * s, 0, 0, -s}, {0, 2 * s, 0, -s}, {0, 0, 2, -1}, {0, 0, 0, 1}}};
    Element("normal", {kWhite, surface.normalPicture, 1, &range});
  }

  bool Emits() const { return MaxOf(surface.emission.x, MaxOf(surface.emission.y, surface.emission.z)) > 0; }

  // Of what the index lets through.
  void Emission(float ior, bool isFront) {
    if (!Emits() || !isFront) return;
    WriteKeyword(text, "virtual_light");
    Element("emissive",
            {surface.emission * (1 / (1 - HeadOnReflection(ior))), surface.emissionPicture, kScreenGamma});
  }

  void Plastic(bool isFront) {
    const bool reflects = surface.specular > 0 && surface.ior > 1;
    const float ior = reflects ? surface.ior : 1.0f;
    Element("lambertian", {surface.base, surface.basePicture, kScreenGamma});
    if (reflects) {
      const float below =
          std::min(surface.specular, 1.0f) * (surface.coat > 0 && !IsSharp() ? 1 - surface.coat : 1.0f);
      Reflection({below, below, below}, {});
      if (surface.coat > 0 && !IsSharp()) Element("specular", surface.coat);
      Element("ior", ior);
    }
    Normal();
    Emission(ior, isFront);
  }

  void Metal(bool isFront) {
    const float ior = Emits() && isFront ? kShiningIor : kMirrorIor;
    const float gain = 1 / HeadOnReflection(ior);
    const Vec3 color = surface.base * gain;
    Reflection({MinOf(color.x, 1), MinOf(color.y, 1), MinOf(color.z, 1)}, surface.basePicture);
    Element("ior", ior);
    Normal();
    Emission(ior, isFront);
  }

  void Glass(bool isFront) {
    WriteKeyword(text, surface.thin ? "thin_dielectric" : "dielectric");
    const float ior = MaxOf(surface.ior, 1.01f);
    if (surface.thin)
      Element("specular", {surface.base, surface.basePicture, kScreenGamma});
    else
      Reflection(surface.base, surface.basePicture);
    Element("ior", ior);
    if (!surface.thin) {  // straight on through both faces: no photons look for the ways
      const float through = (1 - HeadOnReflection(ior)) * 0.9f;
      Element("shadow_transparency", {surface.base * through, surface.basePicture, kScreenGamma});
    }
    Normal();
    Emission(ior, isFront);
  }

  // What the weight of a layer is made of: one minus or just the metal's share, times a constant.
  void Weight(bool ofMetal, float factor) {
    const float metal = surface.metallic;
    if (surface.metallicPicture.picture == kNone)
      return Element("weight", factor * (ofMetal ? metal : 1 - metal));
    const Mat4 blue = ofMetal ? EachRow(0, 0, metal, 0) : EachRow(0, 0, -metal, 1);
    Element("weight", {{factor, factor, factor}, surface.metallicPicture, 1, &blue});
  }

  // Least and greatest share of metal.
  Vec2 MetalRange() const {
    if (surface.metallicPicture.picture == kNone) return {surface.metallic, surface.metallic};
    const PictureFacts& facts = FactsOf(shelf, model, surface.metallicPicture);
    return {surface.metallic * facts.low.z, surface.metallic * facts.high.z};
  }

  // All layers of one side, or of both.
  void Layers(const char* sideness, bool isFront) {
    constexpr float kNegligible = 0.01f;
    const Vec2 metal = MetalRange();
    const float glass = surface.transmission;
    const bool hasMetal = metal.y > kNegligible, hasRest = metal.x < 1 - kNegligible;
    const bool hasGlass = hasRest && glass > kNegligible, hasPlastic = hasRest && glass < 1 - kNegligible;
    const bool isAlone = int{hasMetal} + int{hasGlass} + int{hasPlastic} == 1;
    const auto layer = [&](bool exists, void (ShaderWriter::*write)(bool), bool ofMetal, float factor) {
      if (!exists) return;
      OpenBlock(text, "surface_shader");
      if (sideness != nullptr) WriteString(text, "sideness", sideness);
      if (!isAlone) Weight(ofMetal, factor);
      (this->*write)(isFront);
      CloseBlock(text);
    };
    layer(hasPlastic, &ShaderWriter::Plastic, false, 1 - glass);
    layer(hasMetal, &ShaderWriter::Metal, true, 1);
    layer(hasGlass, &ShaderWriter::Glass, false, glass);
  }

  void Unlit(const char* sideness, bool isFront) {
    OpenBlock(text, "surface_shader");
    if (sideness != nullptr) WriteString(text, "sideness", sideness);
    if (isFront) Element("emissive", {surface.base, surface.basePicture, kScreenGamma});
    CloseBlock(text);
  }

  void CutOut() {
    if (surface.alphaMode == AlphaMode::kOpaque) return;
    const bool isMask = surface.alphaMode == AlphaMode::kMask;
    PictureUse mask = surface.maskPicture;
    if (mask.picture == kNone && surface.basePicture.picture != kNone &&
        FactsOf(shelf, model, surface.basePicture).isClear)
      mask = surface.basePicture;
    const float alpha = std::clamp(surface.alpha, 0.0f, 1.0f);
    if (mask.picture == kNone) {
      const float opacity = isMask ? (alpha >= surface.alphaCutoff ? 1.0f : 0.0f) : alpha;
      if (opacity < 1) WriteNumbers(text, "opacity", {opacity});
      return;
    }
    constexpr float kSteep = 64;  // from not there to there within a few steps of a byte
    const Mat4 threshold = {{{kSteep * alpha, 0, 0, 0.5f - kSteep * surface.alphaCutoff},
                             {0, kSteep * alpha, 0, 0.5f - kSteep * surface.alphaCutoff},
                             {0, 0, kSteep * alpha, 0.5f - kSteep * surface.alphaCutoff},
                             {0, 0, 0, 1}}};
    const float factor = isMask ? 1.0f : alpha;
    OpenBlock(text, "geometry_shader");
    Element("clip", {{factor, factor, factor}, mask, 1, isMask ? &threshold : nullptr});
    CloseBlock(text);
  }

  void Write(const std::string& name) {
    OpenBlock(text, "shader");
    WriteString(text, "name", name);
    const bool hasSides = !surface.twoSided && (Emits() || surface.unlit);
    const auto side = [&](const char* sideness, bool isFront) {
      return surface.unlit ? Unlit(sideness, isFront) : Layers(sideness, isFront);
    };
    side(hasSides ? "face" : nullptr, true);
    if (hasSides) side("back", false);
    CutOut();
    const Vec3 left = surface.transmittance;
    if (surface.transmission > 0 && !surface.thin && MinOf(left.x, MinOf(left.y, left.z)) < 1) {
      OpenBlock(text, "volume_shader");
      WriteTriple(text, "transmittance", left);
      CloseBlock(text);
    }
    CloseBlock(text);
  }
};

}  // namespace

std::string ShaderText(ImportSurface surface, const std::string& name, ImportModel& model,
                       PictureShelf& shelf) {
  for (PictureUse* use : {&surface.basePicture, &surface.metallicPicture, &surface.roughnessPicture,
                          &surface.emissionPicture, &surface.normalPicture, &surface.maskPicture})
    if (use->picture != kNone) TakePicture(shelf, model, *use);
  if (surface.normalIsDoubtful && surface.normalPicture.picture != kNone) {
    const Vec3 mean = FactsOf(shelf, model, surface.normalPicture).mean;
    const bool isNormal =
        mean.z > 0.65f && std::fabs(mean.x - 0.5f) < 0.15f && std::fabs(mean.y - 0.5f) < 0.15f;
    if (!isNormal) {
      AddLoss(model, "the picture of heights of \"" + surface.name + "\" is left out");
      surface.normalPicture = {};
    }
  }
  if (surface.thin && surface.transmission > 0 && surface.roughness > 0.1f)
    AddLoss(model, "the thin glass of \"" + surface.name + "\" is clear in place of rough");
  surface.roughness = std::clamp(surface.roughness, 0.0f, 1.0f);
  surface.metallic = std::clamp(surface.metallic, 0.0f, 1.0f);
  surface.transmission = std::clamp(surface.transmission, 0.0f, 1.0f);
  ShaderWriter writer{surface, model, shelf};
  writer.Write(name);
  return std::move(writer.text.text);
}

}  // namespace zp
