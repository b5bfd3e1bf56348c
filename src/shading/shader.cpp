// The table of Shaders: names, textures, side lists and derived flags.

#include <algorithm>
#include <utility>

#include "core/console.h"
#include "core/index.h"
#include "core/progress.h"
#include "core/release.h"
#include "core/settings.h"
#include "shading/name_index.h"
#include "shading/shading.h"

namespace zp {

std::vector<Shader> shaders;
std::vector<std::string> uvSetNames;

namespace {
NameIndex<Shader> shaderNames;
}  // namespace

SurfaceShader::SurfaceShader() {
  for (const ElementRow& row : kElements) (*this)[row.element].color = row.color;
}

void AddUndefinedShader() {
  if (FindShader(kUndefinedShader) != kNone) return;
  Shader shader;
  shader.name = kUndefinedShader;
  SurfaceShader& surface = shader.surfaces.emplace_back();
  surface[Element::kLambertian].color = {0.85f, 0.85f, 0.85f};
  surface[Element::kIor].color = kWhite;
  shaders.push_back(std::move(shader));
}

std::int32_t FindShader(std::string_view name) {
  return shaderNames.Find(shaders, name,
                          [](const Shader& shader) -> const std::string& { return shader.name; });
}

void RenameShader(std::int32_t index, std::string name) {
  ShaderAt(index).name = std::move(name);
  shaderNames.Renamed(static_cast<std::size_t>(index));
}

std::int32_t FindOrCreateShader(std::string_view name) {
  if (const std::int32_t found = FindShader(name); found != kNone) return found;
  shaders.emplace_back().name = name;
  return static_cast<std::int32_t>(shaders.size() - 1);
}

void BindAovShader(Aov& aov) {
  aov.shaderIndex = kNone;
  for (std::size_t i = 0; i < shaders.size(); ++i)
    if (shaders[i].name == aov.shaderName) aov.shaderIndex = static_cast<std::int32_t>(i);
}

namespace {

// Calls visit(slot) for every slot of a Shader.
template <class Visit>
void ForEachSlot(Shader& shader, Visit visit) {
  GeometryShader& geometry = shader.geometry;
  for (auto* list : {&geometry.radius, &geometry.length, &geometry.vector, &geometry.height})
    for (ImageSlot& slot : *list) visit(slot);
  visit(geometry.clip);
  for (SurfaceShader& surface : shader.surfaces)
    for (ImageSlot& slot : surface.slots) visit(slot);
}

// In the fourth row of a colour matrix format 1 has the third number go with green, not with blue.
void SettleMatrices(ImageSlot& slot) {
  if (settings.format >= 2) return;
  auto& divisor = slot.colorMatrix.m[3];
  divisor[1] += divisor[2];
  divisor[2] = 0;
}

// In format 1 all pictures are read by a model's first set, which is named "uv".
void SettleUvSet(ImageSlot& slot) {
  slot.uvSet = 0;
  if (settings.format < 2 || slot.image == kNone || slot.uvSetName.empty() || slot.uvSetName == "uv") return;
  const auto found = std::find(uvSetNames.begin(), uvSetNames.end(), slot.uvSetName);
  slot.uvSet = static_cast<std::int32_t>(found - uvSetNames.begin()) + 1;
  if (found == uvSetNames.end()) uvSetNames.push_back(slot.uvSetName);
}

// What is left of a texture index once its file was tried.
std::int32_t IfLoaded(std::int32_t image) {
  return image != kNone && At(images, image).loaded ? image : kNone;
}

// Both sides of a shader with one one-sided surface have something to show.
void CompleteSides(Shader& shader) {
  if (shader.surfaces.empty()) shader.surfaces.emplace_back();
  if (shader.surfaces.size() != 1 || shader.surfaces[0].sideness == Sideness::kBoth) return;
  const bool face = shader.surfaces[0].sideness == Sideness::kFace;
  shader.surfaces.emplace_back().sideness = face ? Sideness::kBack : Sideness::kFace;
}

void FillSideLists(Shader& shader) {
  shader.frontCount = shader.backCount = 0;
  shader.front = shader.back = {};
  bool dropped = false;
  for (std::size_t i = 0; i < shader.surfaces.size(); ++i) {
    const auto add = [&](auto& list, std::int32_t& count) {
      if (count == kMaxLayersOnSide || i > 255)
        dropped = true;
      else
        At(list, count++) = static_cast<std::uint8_t>(i);
    };
    const Sideness sideness = shader.surfaces[i].sideness;
    if (sideness != Sideness::kBack) add(shader.front, shader.frontCount);
    if (sideness != Sideness::kFace) add(shader.back, shader.backCount);
  }
  if (dropped) PrintError("shader - too many layers on a side", {"shader-layers"});
}

// A catcher has nothing of its own to show. Format 1 knows none.
void SettleCatcher(SurfaceShader& s) {
  s.shadowCatcher = s.shadowCatcher && settings.format >= 2;
  if (!s.shadowCatcher) return;
  for (const LobeRow& row : kLobes) s[row.element].color = kBlack;
  s[Element::kEmissive].color = s[Element::kDiffusion].color = kBlack;
  s.window = s.virtualLight = false;
  s.material = Material::kConductor;
}

void DeriveFlags(SurfaceShader& s) {
  const auto shows = [&](Element e) { return !IsBlack(s[e].color); };
  s.hasImage =
      std::any_of(s.slots.begin(), s.slots.end(), [](const ImageSlot& i) { return i.image != kNone; });
  for (const LobeRow& row : kLobes) s.has[row.lobe] = shows(row.element);
  s.hasDiffusion = shows(Element::kDiffusion);
  s.hasNormalMap = s[Element::kNormal].image != kNone;
  s.isGlossy = s.has[Lobe::kGlossy] && shows(Element::kRoughness);
  s.isAnisotropic = s.isGlossy && shows(Element::kAnisotropy);
  s.needsTangents = s.hasNormalMap || s.isAnisotropic;
  s.hasAngle = s.needsTangents && shows(Element::kAngle);
  s.isPlain = !s.hasImage && std::none_of(std::begin(kLobes), std::end(kLobes), [&](const LobeRow& row) {
    return !row.diffuse && s.has[row.lobe];
  });
}

// Two sides that meet at an index of 1 are no boundary: nothing is reflected by Fresnel's law.
EvenLayer MakeEvenLayer(const SurfaceShader& s) {
  EvenLayer even;
  even.holds = settings.format >= 2 && !s.hasImage && IsSameMedium(Mean(s[Element::kIor].color), 1);
  even.keepsFrame = even.holds && !s.hasAngle && !s.hasNormalMap && !s.has[Lobe::kGlossy];
  even.emits = s.window || s.shadowCatcher || !(s[Element::kEmissive].color == kBlack);
  const auto take = [&](Element element, Vec3& color) {
    color = s[element].color;
    return !IsBlack(color);
  };
  for (const LobeRow& row : kLobes) even.has[row.lobe] = take(row.element, even.color[row.lobe]);
  even.hasDiffusion = take(Element::kDiffusion, even.diffusionColor);
  return even;
}

// True if no shadow ray passes the layer at any point: an image only multiplies the colour. Exactly black,
// since what is nearly black can be lifted by images and layers above 1.
bool IsOpaque(const SurfaceShader& s) {
  const bool thin = s.material == Material::kThinDielectric;
  return s[thin ? Element::kSpecular : Element::kShadowTransparency].color == kBlack;
}

void DeriveSideFlags(Shader& shader) {
  const auto derive = [&](const auto& list, std::int32_t count, bool& virtualLight, bool& emissive,
                          bool& lambertian, bool& transmissive, bool& opaque) {
    virtualLight = emissive = lambertian = transmissive = opaque = false;
    for (std::int32_t i = 0; i < count; ++i) {
      const SurfaceShader& surface = shader.surfaces[At(list, i)];
      virtualLight |= surface.virtualLight;
      emissive |= !IsBlack(surface[Element::kEmissive].color);
      lambertian |= surface.has[Lobe::kLambertian];
      transmissive |= surface.has[Lobe::kTransmissive];
      opaque |= IsOpaque(surface) && !shader.catchesShadow;
    }
  };
  derive(shader.front, shader.frontCount, shader.frontVirtualLight, shader.frontEmissive,
         shader.frontLambertian, shader.frontTransmissive, shader.frontOpaque);
  derive(shader.back, shader.backCount, shader.backVirtualLight, shader.backEmissive, shader.backLambertian,
         shader.backTransmissive, shader.backOpaque);
}

bool Refracts(const SurfaceShader& s) {
  const ImageSlot& ior = s[Element::kIor];
  return s.material == Material::kDielectric && (ior.image != kNone || !IsSameMedium(Mean(ior.color), 1));
}

// By format 1 opacity and clip are stored, without effect.
void DeriveCutOuts(Shader& shader) {
  ImageSlot& clip = shader.geometry.clip;
  const bool shows = clip.image == kNone && shader.opacity * Mean(clip.color) >= 1;
  shader.cutsOut = settings.format >= 2 && !shows;
  if (shader.cutsOut) clip.image = MaskTexture(clip.image);
  // How often walks ask depends on their order, so that they must not draw numbers.
  if (clip.pixelSampler == PixelSampler::kStochastic) clip.pixelSampler = PixelSampler::kBilinear;
}

void InitializeShader(Shader& shader) {
  if (shader.initialized) return;
  CompleteSides(shader);
  FillSideLists(shader);
  // Written so that what is no number becomes a limit too.
  const auto unit = [](float x) { return x > 0 ? MinOf(x, 1.0f) : 0.0f; };
  shader.geometry.roundCorner = unit(shader.geometry.roundCorner);
  shader.geometry.reduction = unit(shader.geometry.reduction);
  InitializeVolume(shader.volume);
  for (SurfaceShader& surface : shader.surfaces) {
    SettleCatcher(surface);
    DeriveFlags(surface);
    surface.even = MakeEvenLayer(surface);
  }
  shader.catchesShadow = std::any_of(shader.surfaces.begin(), shader.surfaces.end(),
                                     [](const SurfaceShader& s) { return s.shadowCatcher; });
  DeriveSideFlags(shader);
  shader.bends = std::any_of(shader.surfaces.begin(), shader.surfaces.end(), Refracts);
  shader.isBody = shader.bends || Absorbs(shader.volume);
  DeriveCutOuts(shader);
  const auto any = [&](auto flag) {
    return std::any_of(shader.surfaces.begin(), shader.surfaces.end(), flag);
  };
  shader.isTurned = settings.format < 2 || any([](const SurfaceShader& s) { return s.needsTangents; });
  shader.readsUv = shader.cutsOut || any([](const SurfaceShader& s) { return s.hasImage; });
  shader.initialized = true;
}

// Names become indices and every file is read once, so that a missing one is told once.
void InitializeTextures(std::int32_t undefined) {
  // Shaders that become copies of "undefined" show none of their own images.
  const auto forEachSlot = [&](auto visit) {
    for (Shader& shader : shaders) {
      const bool isUndefined = &shader - shaders.data() == undefined;
      if (!shader.initialized && (!shader.surfaces.empty() || isUndefined || undefined == kNone))
        ForEachSlot(shader, visit);
    }
  };
  std::vector<bool> wanted(images.size(), false);
  forEachSlot([&](ImageSlot& slot) {
    for (auto [name, index] :
         {std::pair(&slot.imageName, &slot.image), std::pair(&slot.fresnelImageName, &slot.fresnelImage)}) {
      if (name->empty()) continue;  // keeps an index that a host gave
      *index = FindOrAddTexture(*name);
      wanted.resize(images.size(), false);
      At(wanted, *index) = true;
    }
  });
  bool failed = false;
  PlanWork(Phase::kReading, static_cast<std::uint64_t>(std::count(wanted.begin(), wanted.end(), true)));
  for (std::size_t i = 0; i < images.size(); ++i) {
    if (!wanted[i]) continue;
    if (!LoadTexture(images[i])) failed = true;
    FinishWork(Phase::kReading);
  }
  forEachSlot([&](ImageSlot& slot) {
    SettleMatrices(slot);
    if (!slot.imageName.empty()) slot.image = IfLoaded(slot.image);
    if (!slot.fresnelImageName.empty()) slot.fresnelImage = IfLoaded(slot.fresnelImage);
    SettleUvSet(slot);
  });

  if (failed) PrintRule();
  std::size_t bytes = 0;
  for (const ImageBuffer& image : images) bytes += PixelBytes(image);
  PrintCountRow("textures", images.size(), static_cast<float>(bytes) * kMegabytesPerByte);
  PrintRule();
}

}  // namespace

void InitializeShaders() {
  const std::int32_t undefined = FindShader(kUndefinedShader);
  InitializeTextures(undefined);
  if (undefined != kNone) InitializeShader(ShaderAt(undefined));
  for (Shader& shader : shaders) {
    if (shader.surfaces.empty() && undefined != kNone)
      shader = Shader(ShaderAt(undefined));
    else
      InitializeShader(shader);
  }
  shaderNames.Forget();  // copies of "undefined" have its name
  const std::size_t bytes = shaders.size() * sizeof(Shader);
  PrintCountRow("shaders ", shaders.size(), static_cast<float>(bytes) * kMegabytesPerByte);
  PrintRule();
}

void FinalizeShaders() {
  Release(shaders);
  Release(uvSetNames);
  shaderNames.Forget();
}

}  // namespace zp
