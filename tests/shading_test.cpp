#include "shading/shading.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <set>

#include "core/random.h"
#include "core/tables.h"
#include "lights/lights.h"
#include "statistics.h"
#include "surroundings.h"

namespace zp {
namespace {

// A shader table of the test's own.
class Shading : public testing::Test {
 protected:
  void SetUp() override {
    StartRandom(7);
    shaders = {};
    images = {};
    imageSearchPaths = {""};
  }
  void TearDown() override {
    SetUp();
    StartRandom(std::nullopt);
  }

  // A shader that has one surface for each sideness given.
  static std::size_t AddShader(const std::string& name, std::initializer_list<Sideness> sides) {
    Shader& shader = shaders.emplace_back();
    shader.name = name;
    for (Sideness side : sides) shader.surfaces.emplace_back().sideness = side;
    return shaders.size() - 1;
  }
  static std::string Initialize() { return Printed(InitializeShaders); }
};

using Side = Sideness;

TEST_F(Shading, SideLists) {
  AddUndefinedShader();
  const auto face = AddShader("face", {Side::kFace});
  const auto mixed = AddShader("mixed", {Side::kBoth, Side::kFace, Side::kBack});
  const auto empty = AddShader("empty", {});
  shaders[face].surfaces[0][Element::kEmissive].color = kWhite;
  const std::string text = Initialize();
  EXPECT_NE(text.find("shaders                 4 "), std::string::npos) << text;
  EXPECT_LT(text.find("textures                0 "), text.find("shaders ")) << text;
  // A side that has no layer beside a single one gets an empty one.
  ASSERT_EQ(shaders[face].surfaces.size(), 2u);
  EXPECT_EQ(shaders[face].surfaces[1].sideness, Side::kBack);
  EXPECT_EQ(shaders[face].back[0], 1);
  EXPECT_TRUE(shaders[face].frontEmissive && !shaders[face].backEmissive);
  const Shader& both = shaders[mixed];
  EXPECT_EQ(std::string(both.front.begin(), both.front.begin() + both.frontCount), std::string("\0\1", 2));
  EXPECT_EQ(std::string(both.back.begin(), both.back.begin() + both.backCount), std::string("\0\2", 2));
  EXPECT_EQ(shaders[empty].surfaces[0][Element::kLambertian].color, (Vec3{0.85f, 0.85f, 0.85f}));
}

TEST_F(Shading, TooManyLayersAreToldOnceAndIgnored) {
  const auto crowd = AddShader("crowd", {});
  for (int i = 0; i < 300; ++i) shaders[crowd].surfaces.emplace_back().sideness = Side::kFace;
  shaders[crowd].surfaces.emplace_back().sideness = Side::kBack;  // its index fits no byte
  const std::string text = Initialize();
  const std::string row = "error :( \tshader - too many layers on a side\n";
  EXPECT_NE(text.find(row), std::string::npos);
  EXPECT_EQ(text.find(row), text.rfind(row));
  EXPECT_EQ(shaders[crowd].frontCount, 16);
  EXPECT_EQ(shaders[crowd].front[15], 15);
  EXPECT_EQ(shaders[crowd].backCount, 0);
  EXPECT_EQ(&ChooseLayer(shaders[crowd], false, {}), &shaders[crowd].surfaces[0]);
}

TEST_F(Shading, LayersAreChosenByWeight) {
  Shader& shader = shaders[AddShader("mix", {Side::kBoth, Side::kFace, Side::kBoth, Side::kBack})];
  const float weights[] = {1, 2, 5, std::nanf("")};
  for (std::size_t i = 0; i < 4; ++i) shader.surfaces[i][Element::kWeight].color = weights[i] * kWhite;
  Initialize();
  const auto draw = [&](bool front, int draws) {
    std::array<int, 4> counts = {};
    for (int i = 0; i < draws; ++i)
      ++counts.at(static_cast<std::size_t>(&ChooseLayer(shader, front, {}) - shader.surfaces.data()));
    return counts;
  };
  // Five standard deviations of each count.
  const std::array<int, 4> front = draw(true, 80000), back = draw(false, 6000);
  EXPECT_NEAR(front[0], 10000, 470);
  EXPECT_NEAR(front[1], 20000, 615);
  EXPECT_EQ(front[3], 0);
  EXPECT_NEAR(back[0], 1000, 145);
  EXPECT_EQ(back[0] + back[2], 6000);
  // Without weights the first layer of the side is taken.
  shader.surfaces.erase(shader.surfaces.begin());
  for (SurfaceShader& surface : shader.surfaces) surface[Element::kWeight].color = kBlack;
  shader.initialized = false;
  Initialize();
  EXPECT_EQ(draw(true, 50)[0], 50);
  EXPECT_EQ(draw(false, 50)[1], 50);
}

// Links go to the first shader of a name, AOVs to the last.
TEST_F(Shading, TwoShadersOfOneName) {
  AddUndefinedShader();
  AddUndefinedShader();
  EXPECT_EQ(FindOrCreateShader("red"), 1);
  EXPECT_EQ(FindOrCreateShader("red"), 1);
  AddShader("red", {Side::kBoth});
  EXPECT_EQ(FindShader("red"), 1);
  EXPECT_EQ(FindShader("Red"), kNone);
  RenameShader(1, "blue");  // the later one becomes the first
  EXPECT_EQ(FindShader("red"), 2);
  RenameShader(1, "red");
  EXPECT_EQ(FindShader("blue"), kNone);
  EXPECT_EQ(FindShader("red"), 1);
  Aov aov;
  aov.shaderName = "red";
  BindAovShader(aov);
  EXPECT_EQ(aov.shaderIndex, 2);
  ShaderLink link;
  EXPECT_TRUE(IsLinked(link, 0));
  link.names = {"nobody", "red"};
  ResolveLink(link);
  ResolveLink(link);
  EXPECT_EQ(link.shaders, (std::vector<std::int32_t>{1}));
  EXPECT_TRUE(IsLinked(link, 1) && !IsLinked(link, 0));
}

// What is missing, no file or no picture is told once, and its colour shows.
TEST_F(Shading, TexturesThatCannotBeFound) {
  StartImageFiles();
  const TemporaryFolder folder;
  imageSearchPaths = {"", folder.path.string()};
  WriteFile(folder / "text.png", "no picture at all");
  std::filesystem::create_directory(folder / "folder.png");
  const std::string rule = std::string(80, '_') + "\n\n";
  std::string rows;
  for (const char* name : {"no-such-picture.png", "text.png", "folder.png"}) {
    SurfaceShader& surface = shaders[AddShader(name, {Side::kBoth})].surfaces[0];
    surface[Element::kLambertian].imageName = surface[Element::kGlossy].imageName = name;
    surface[Element::kLambertian].color = kWhite;
    const char* what = name == std::string("text.png") ? "\tis of no known format\n" : "\tcannot be found\n";
    rows += "error :( \timage - " + std::string(name) + what + rule;
  }
  const std::string text = Initialize();
  StopImageFiles();
  EXPECT_TRUE(text.starts_with(rows + rule + "textures")) << text;
  EXPECT_EQ(images.size(), 3u);
  for (const Shader& shader : shaders) {
    EXPECT_FALSE(shader.surfaces[0].hasImage);
    EXPECT_EQ(LookUp(shader.surfaces[0][Element::kLambertian], {}), kWhite);
  }
}

// --- The shading point -------------------------------------------------------------------------------------

struct PointCase {
  SurfaceShader layer;
  ShadingPoint point;
};

PointCase MakePoint(float ior, Vec3 outgoing) {
  PointCase c;
  c.layer[Element::kIor].color = ior * kWhite;
  c.point.tangent = {1, 0, 0};
  c.point.bitangent = {0, 1, 0};
  c.point.normal = c.point.geometricNormal = {0, 0, 1};
  c.point.outgoing = SafeNormalize(outgoing);
  return c;
}

void Finish(PointCase& c) {
  c.point.layer = &c.layer;
  FinishShadingPoint(c.point, {}, true);
}

void ExpectOrthonormal(const ShadingPoint& p) {
  for (Vec3 v : {p.tangent, p.bitangent, p.normal}) EXPECT_NEAR(Dot(v, v), 1, 1e-5);
  EXPECT_NEAR(Dot(p.tangent, p.bitangent), 0, 1e-5);
  EXPECT_NEAR(Dot(p.tangent, p.normal), 0, 1e-5);
  EXPECT_NEAR(Dot(p.bitangent, p.normal), 0, 1e-5);
}

// The values themselves are those of rendered mirrors, panes and slabs.
TEST_F(Shading, WeightsOfOddIndices) {
  for (float ior : {1.0f, -1.0f, 0.0f, 1e15f})
    for (Material material : {Material::kConductor, Material::kDielectric, Material::kThinDielectric})
      for (float height : {1.0f, 0.3f, 0.0f}) {
        PointCase c = MakePoint(ior, {std::sqrt(1 - height * height), 0, height});
        c.layer.material = material;
        Finish(c);
        EXPECT_TRUE(c.point.specularWeight >= 0 && c.point.specularWeight <= 1) << ior << ' ' << height;
        EXPECT_EQ(c.point.specularWeight == 0, ior == 1) << ior << ' ' << height;
        EXPECT_EQ(c.point.diffuseWeight, 1 - c.point.specularWeight);
        EXPECT_TRUE(std::isfinite(c.point.iorRatio));
      }
  PointCase c = MakePoint(1.5f, {0, 0, 1});
  c.point.useDensity = c.layer.isPlain = true;
  Finish(c);
  EXPECT_EQ(c.point.specularWeight, 0);
}

TEST_F(Shading, MirrorDirectionNeverLeavesThroughTheSurface) {
  PointCase c = MakePoint(1, {1, 0, 0.1f});
  c.point.normal = SafeNormalize({-0.5f, 0, 1});  // turned away: the mirror ray would go down
  Finish(c);
  EXPECT_EQ(c.point.normal, c.point.geometricNormal);
  EXPECT_FLOAT_EQ(c.point.reflectCosine, c.point.outgoing.z);
  c = MakePoint(1, {0.2f, 0, 1});
  const Vec3 harmless = c.point.normal = SafeNormalize({0.1f, 0, 1});
  Finish(c);
  EXPECT_EQ(c.point.normal, harmless);
}

TEST_F(Shading, AnglesAndNormalMapsKeepTheFrameOrthonormal) {
  for (float turns : {0.25f, 0.1f, -0.4f, 3.7f, std::nanf("")}) {
    PointCase c = MakePoint(1, {0, 0, 1});
    c.layer.hasAngle = true;
    c.layer[Element::kAngle].color = turns * kWhite;
    Finish(c);
    ExpectOrthonormal(c.point);
    if (!std::isnan(turns)) {
      EXPECT_NEAR(c.point.tangent.y, -std::sin(2 * kPi * turns), 1e-5);
    }
  }
  ImageBuffer& image = images.emplace_back();
  image.width = image.height = 1;
  for (Vec3 texel : {Vec3{0.3f, -0.2f, 0.9f}, Vec3{1, 0, 0}, Vec3{0, 1, 1}, Vec3{}, Vec3{0, 0, 1e-3f}}) {
    image.floatPixels = {texel.x, texel.y, texel.z};
    const Vec3 expected = texel == Vec3{} ? Vec3{0, 0, 1} : SafeNormalize(texel);
    PointCase c = MakePoint(1, expected + Vec3{0, 0, 0.01f});
    // Steep enough for the mirror guard to let every bent normal pass: it would leave the tangents behind.
    if (texel.x == 1) c.point.geometricNormal = SafeNormalize({1, 0, 1});
    c.layer.hasNormalMap = true;
    c.layer[Element::kNormal].image = 0;
    Finish(c);
    ExpectOrthonormal(c.point);
    EXPECT_NEAR(Dot(c.point.normal, expected), 1, 1e-5);
  }
}

TEST_F(Shading, GlossyWidthsOfHostileNumbers) {
  for (float hostile : {0.0f, 1.0f, 2.0f, -kFarthest, -INFINITY, std::nanf("")}) {
    PointCase c = MakePoint(1, {0, 0, 1});
    c.layer.has[Lobe::kGlossy] = c.layer.isGlossy = c.layer.isAnisotropic = true;
    c.layer[Element::kRoughness].color = -hostile * kWhite;
    c.layer[Element::kAnisotropy].color = hostile * kWhite;
    Finish(c);
    EXPECT_TRUE(std::isfinite(c.point.alphaX) && std::isfinite(c.point.alphaY));
    EXPECT_GT(MinOf(c.point.alphaX, c.point.alphaY), 0);
  }
}

// --- Textures ----------------------------------------------------------------------------------------------

// Four columns and two rows; texel (x, y) holds (x, y, 1).
ImageBuffer MakeGrid() {
  ImageBuffer image;
  image.width = 4;
  image.height = 2;
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 4; ++x)
      for (int v : {x, y, 1}) image.floatPixels.push_back(static_cast<float>(v));
  return image;
}

TEST_F(Shading, TextureWrap) {
  const ImageBuffer grid = MakeGrid();
  ImageSlot slot;
  slot.pixelSampler = PixelSampler::kNearest;
  for (int mode : {-128, 2, 127}) {
    slot.wrapU = slot.wrapV = static_cast<std::int8_t>(mode);
    EXPECT_EQ(LookUpTexture(grid, slot, {0.5f, 0.5f}), (Vec3{2, 1, 1}));
    EXPECT_EQ(LookUpTexture(grid, slot, {0, 3}), kBlack);
    for (float far : {-1e30f, -5.0f, 1.0f, 2.0f, 1e9f, kFarthest, std::nanf("")})
      EXPECT_TRUE(IsFinite(LookUpTexture(grid, slot, {far, far})));
  }
  EXPECT_EQ(LookUpTexture(ImageBuffer(), slot, {0.5f, 0.5f}), kBlack);
  slot.gamma = 0;
  EXPECT_EQ(LookUpTexture(grid, slot, {0, 0}), kWhite);
  slot.gamma = -1;
  EXPECT_TRUE(IsFinite(LookUpTexture(grid, slot, {0, 0})));
  slot.pixelSampler = static_cast<PixelSampler>(9);
  EXPECT_EQ(LookUpTexture(grid, slot, {0, 0}), kBlack);
}

// Pictures of every stored form, with content that each can hold.
std::vector<ImageBuffer> RandomPictures(int width, int height) {
  FillExponentTable();
  std::vector<ImageBuffer> pictures;
  for (int channels : {1, 3, 4})
    for (int bits : {1, 8, 16, 32, 64}) {
      ImageBuffer& image = pictures.emplace_back();
      Allocate(image, width, height, channels, bits, false);
      for (auto& word : image.bitPixels) word = RandomBits();
      for (std::size_t i = 0; i < static_cast<std::size_t>(width * height); ++i)
        WritePixel(image, {RandomFloat(), RandomFloat(), RandomFloat()}, i);
    }
  ImageBuffer& packed = pictures.emplace_back();
  Allocate(packed, width, height, 3, 32, true);
  const auto byte = [] { return static_cast<std::uint8_t>(RandomBits()); };
  for (PackedPixel& p : packed.packedPixels)
    p = {byte(), byte(), byte(), static_cast<std::uint8_t>(126 + RandomBits() % 4)};
  packed.packedPixels[0].exponent = 0;
  return pictures;
}

double StoredComponent(const ImageBuffer& image, std::size_t pixel, std::size_t component) {
  if (image.packed) {
    const PackedPixel p = image.packedPixels[pixel];
    const std::uint8_t bytes[] = {p.r, p.g, p.b};
    return p.exponent == 0 ? 0 : bytes[component] * std::ldexp(1.0, p.exponent - 136);
  }
  const std::size_t i =
      image.channels == 1 ? pixel : pixel * static_cast<std::size_t>(image.channels) + component;
  if (image.bits == 1) return (image.bitPixels[i / 32] >> i % 32) & 1U;
  if (image.bits == 8) return image.bytePixels[i] / 255.0;
  if (image.bits == 16) return image.wordPixels[i] / 255.0;
  return image.bits == 32 ? static_cast<double>(image.floatPixels[i]) : image.doublePixels[i];
}

// The bilinear value by the book: no shortcut, double precision.
double PlainBilinear(const ImageBuffer& image, const ImageSlot& slot, Vec2 uv, std::size_t component) {
  const auto wrap = [](int i, int size, int mode) {
    if (mode == 1) return std::min(std::max(i, 0), size - 1);
    return ((i % size) + size) % size;
  };
  // Single precision here, as the texel that a coordinate belongs to depends on it.
  const float x = static_cast<float>(image.width) * uv.x, y = static_cast<float>(image.height) * uv.y;
  double sum = 0;
  for (int j = 0; j < 2; ++j)
    for (int i = 0; i < 2; ++i) {
      const int column = wrap(static_cast<int>(std::floor(x)) + i, image.width, slot.wrapU);
      const int row = wrap(static_cast<int>(std::floor(y)) + j, image.height, slot.wrapV);
      const double fx = x - std::floor(x), fy = y - std::floor(y);
      const auto pixel = static_cast<std::size_t>(row * image.width + column);
      sum += (i == 1 ? fx : 1 - fx) * (j == 1 ? fy : 1 - fy) *
             std::pow(StoredComponent(image, pixel, component), static_cast<double>(slot.gamma));
    }
  return sum;
}

TEST_F(Shading, BilinearLooksTheSameInEveryStoredForm) {
  for (const ImageBuffer& image : RandomPictures(7, 5))
    for (int i = 0; i < 200; ++i) {
      ImageSlot slot;
      slot.wrapU = static_cast<std::int8_t>(RandomBits() % 2);
      slot.wrapV = static_cast<std::int8_t>(RandomBits() % 2);
      if (i % 2 == 1) slot.gamma = 2.2f;
      const Vec2 uv = {5 * RandomFloat() - 2, 5 * RandomFloat() - 2};
      const Vec3 value = LookUpTexture(image, slot, uv);
      for (std::size_t c = 0; c < 3; ++c) {
        const double expected = PlainBilinear(image, slot, uv, c);
        ASSERT_NEAR(value[static_cast<int>(c)], expected, 1e-5 * (1 + expected))
            << image.bits << " bits, " << image.channels << " channels at " << uv.x << ' ' << uv.y;
      }
    }
}

// One texel a draw, and bilinear in the mean.
TEST_F(Shading, StochasticIsBilinearInTheMean) {
  constexpr int kDraws = 4000;
  for (const ImageBuffer& image : RandomPictures(5, 3))
    for (Vec2 uv : {Vec2{0.37f, 0.61f}, Vec2{0.95f, 0.9f}, Vec2{-0.05f, 1.4f}}) {
      ImageSlot slot;
      slot.gamma = 1.5f;
      const Vec3 expected = LookUpTexture(image, slot, uv);
      slot.pixelSampler = PixelSampler::kStochastic;
      RunningMean found;
      std::set<float> texels;
      for (int i = 0; i < kDraws; ++i) {
        const float value = LookUpTexture(image, slot, uv).y;
        found.Add(double{value});
        texels.insert(value);
      }
      EXPECT_NEAR(found.Mean(), expected.y, 5 * found.Error() + 1e-5 * found.Mean()) << image.bits;
      EXPECT_LE(texels.size(), 4U);
      EXPECT_GE(texels.size(), image.bits == 1 ? 1U : 2U);
    }
}

// A picture that lacks pixels, whatever its format promises, is black where it lacks them.
TEST_F(Shading, PicturesWithoutPixelsAreBlack) {
  for (const ImageBuffer& full : RandomPictures(4, 4)) {
    ImageBuffer image;
    image.packed = full.packed;
    image.channels = full.channels;
    image.bits = full.bits;
    image.width = image.height = 4;
    EXPECT_EQ(LookUpTexture(image, {}, {0.4f, 0.9f}), kBlack);
  }
  ImageBuffer two;
  Allocate(two, 2, 2, 2, 8, false);
  two.bytePixels.assign(8, 255);
  EXPECT_EQ(LookUpTexture(two, {}, {0.4f, 0.9f}), kBlack);
}

TEST_F(Shading, MatricesAndColor) {
  const ImageBuffer& grid = images.emplace_back(MakeGrid());
  ImageSlot slot;
  slot.image = 0;
  slot.pixelSampler = PixelSampler::kNearest;
  slot.uvMatrix = {{{0, 1, 0}, {1, 0, 0}, {0, 0, 0.5f}}};
  slot.colorMatrix = {{{1, 2, 3, 4}, {0, 1, 0, 0}, {0, 0, 1, 0}, {1, 0, 1, 2}}};
  const Vec2 uv = {0.25f, 0.375f};  // (0.75, 0.5) once swapped and doubled
  EXPECT_EQ(LookUpTexture(grid, slot, uv), (Vec3{1, 0, 1}));
  EXPECT_EQ(LookUp(slot, uv), kBlack);  // the picture times a colour, which is black
  slot.color = {0.5f, 1, 2};
  EXPECT_EQ(LookUp(slot, uv), (Vec3{0.5f, 0, 2}));
  slot.uvMatrixIsIdentity = false;
  EXPECT_EQ(LookUpTexture(grid, slot, uv), (Vec3{3, 1, 1}));
  slot.colorMatrixIsIdentity = false;
  const float d = 3 + 1 + 2;  // the last row's third number goes with green
  const Vec3 c = LookUpTexture(grid, slot, uv);
  EXPECT_FLOAT_EQ(c.x, (3 + 2 + 3 + 4) / d);
  EXPECT_FLOAT_EQ(c.y, 1 / d);
  slot.colorMatrix.m[3][0] = slot.colorMatrix.m[3][2] = slot.colorMatrix.m[3][3] = 0;
  slot.uvMatrix.m[2][2] = 0;
  for (bool identity : {false, true}) {
    slot.uvMatrixIsIdentity = identity;
    EXPECT_EQ(LookUpTexture(grid, slot, uv), kBlack);
  }
}

TEST_F(Shading, VolumeCoefficients) {
  VolumeShader volume;
  volume.transmittance = {0.5f, 0, 1};
  volume.albedo = {0.5f, 0.1f, 1};
  volume.averageCosine = -3;
  InitializeVolume(volume);
  EXPECT_FLOAT_EQ(volume.sigmaT.x, std::log(2.0f));
  EXPECT_EQ(volume.averageCosine, -1);
  volume.transmittance = 2 * kWhite;
  volume.albedo = kWhite;
  InitializeVolume(volume);
  EXPECT_EQ(volume.albedo, kBlack);
}

}  // namespace
}  // namespace zp
