#include "shading/shading.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "core/random.h"
#include "core/tables.h"
#include "lights/lights.h"

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
  static std::string Initialize() {
    testing::internal::CaptureStdout();
    InitializeShaders();
    return testing::internal::GetCapturedStdout();
  }
};

using Side = Sideness;

TEST_F(Shading, SideLists) {
  AddUndefinedShader();
  const auto face = AddShader("face", {Side::kFace});
  const auto back = AddShader("back", {Side::kBack});
  const auto mixed = AddShader("mixed", {Side::kBoth, Side::kFace, Side::kBack});
  const auto empty = AddShader("empty", {});
  shaders[face].surfaces[0][Element::kEmissive].color = kWhite;
  shaders[back].surfaces[0][Element::kLambertian].color = kWhite;
  const std::string text = Initialize();
  EXPECT_NE(text.find("shaders                 5 "), std::string::npos) << text;
  EXPECT_LT(text.find("textures                0 "), text.find("shaders ")) << text;

  ASSERT_EQ(shaders[face].surfaces.size(), 2u);
  EXPECT_EQ(shaders[face].surfaces[1].sideness, Side::kBack);
  EXPECT_TRUE(shaders[face].frontEmissive);
  EXPECT_FALSE(shaders[face].backEmissive);
  ASSERT_EQ(shaders[back].surfaces.size(), 2u);
  EXPECT_EQ(shaders[back].front[0], 1);
  EXPECT_TRUE(shaders[back].backLambertian);
  EXPECT_FALSE(shaders[back].frontLambertian);
  EXPECT_EQ(shaders[mixed].frontCount, 2);
  EXPECT_EQ(shaders[mixed].backCount, 2);
  EXPECT_EQ(shaders[mixed].front[1], 1);
  EXPECT_EQ(shaders[mixed].back[1], 2);
  EXPECT_EQ(shaders[empty].surfaces[0][Element::kLambertian].color, (Vec3{0.85f, 0.85f, 0.85f}));
  EXPECT_TRUE(shaders[empty].initialized);
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
  const auto index = AddShader("mix", {Side::kBoth, Side::kFace, Side::kBoth, Side::kBack});
  const float weights[] = {1, 2, 5, std::nanf("")};
  for (std::size_t i = 0; i < 4; ++i)
    shaders[index].surfaces[i][Element::kWeight].color = weights[i] * kWhite;
  Initialize();
  const Shader& shader = shaders[index];
  constexpr int kDraws = 80000;
  int counts[4] = {};
  for (int i = 0; i < kDraws; ++i) ++counts[&ChooseLayer(shader, true, {}) - shader.surfaces.data()];
  double chiSquare = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    const double expected = kDraws * static_cast<double>(weights[i]) / 8;
    chiSquare += (counts[i] - expected) * (counts[i] - expected) / expected;
  }
  EXPECT_LT(chiSquare, 13.8);  // two degrees of freedom, 0.1 %
  EXPECT_EQ(counts[3], 0);
  int back[4] = {};
  for (int i = 0; i < 6000; ++i) ++back[&ChooseLayer(shader, false, {}) - shader.surfaces.data()];
  EXPECT_EQ(back[1] + back[3], 0);
  EXPECT_NEAR(back[0], 1000, 150);
}

TEST_F(Shading, WithoutWeightsTheFirstLayerOfTheSideIsTaken) {
  const auto index = AddShader("none", {Side::kBack, Side::kFace, Side::kFace, Side::kBack});
  Initialize();
  const Shader& shader = shaders[index];
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(&ChooseLayer(shader, true, {}), &shader.surfaces[1]);
    EXPECT_EQ(&ChooseLayer(shader, false, {}), &shader.surfaces[0]);
  }
}

TEST_F(Shading, NamesAndAovs) {
  AddUndefinedShader();
  AddUndefinedShader();
  EXPECT_EQ(shaders.size(), 1u);
  EXPECT_EQ(FindShader("red"), kNone);
  EXPECT_EQ(FindOrCreateShader("red"), 1);
  EXPECT_EQ(FindOrCreateShader("red"), 1);
  AddShader("red", {Side::kBoth});
  EXPECT_EQ(FindShader("red"), 1);
  Aov aov;
  aov.shaderName = "red";
  BindAovShader(aov);
  EXPECT_EQ(aov.shaderIndex, 2);
  aov.shaderName = "Red";
  BindAovShader(aov);
  EXPECT_EQ(aov.shaderIndex, kNone);

  ShaderLink link;
  EXPECT_TRUE(IsLinked(link, 0));
  link.names = {"nobody", "red"};
  ResolveLink(link);
  ResolveLink(link);
  EXPECT_EQ(link.shaders, (std::vector<std::int32_t>{1}));
  EXPECT_TRUE(IsLinked(link, 1));
  EXPECT_FALSE(IsLinked(link, 0));
}

TEST_F(Shading, MissingTextureIsToldOnce) {
  const auto index = AddShader("s", {Side::kBoth});
  SurfaceShader& surface = shaders[index].surfaces[0];
  for (Element e : {Element::kLambertian, Element::kGlossy}) {
    surface[e].imageName = "no-such-picture.png";
    surface[e].color = kWhite;
  }
  const std::string text = Initialize();
  const std::string rule = std::string(80, '_') + "\n\n";
  const std::string row =
      "error :( \timage - no-such-picture.png\tcannot be found\n" + rule + rule + "textures";
  EXPECT_EQ(text.rfind(row, 0), 0u) << text;
  EXPECT_EQ(text.find("error", 1), std::string::npos);
  EXPECT_EQ(images.size(), 1u);
  EXPECT_EQ(shaders[index].surfaces[0][Element::kGlossy].image, kNone);
  EXPECT_FALSE(shaders[index].surfaces[0].hasImage);
  Vec3 color;
  EXPECT_TRUE(TestElement(shaders[index].surfaces[0], Element::kLambertian, {}, color));
  EXPECT_EQ(color, kWhite);
}

// A folder for one test's pictures, and shaders whose Lambertian slots show them.
class TextureFiles : public Shading {
 protected:
  void SetUp() override {
    Shading::SetUp();
    StartImageFiles();
    FillExponentTable();
    std::string pattern = (std::filesystem::temp_directory_path() / "shadingXXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder = pattern;
    imageSearchPaths = {"", folder};
  }
  void TearDown() override {
    std::filesystem::remove_all(folder);
    StopImageFiles();
    Shading::TearDown();
  }
  void Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder + "/" + name, std::ios::binary) << bytes;
  }
  ImageSlot& AddSlot(const std::string& name) {
    ImageSlot& slot = shaders[AddShader(name, {Side::kBoth})].surfaces[0][Element::kLambertian];
    slot.imageName = name;
    slot.color = kWhite;
    slot.pixelSampler = PixelSampler::kNearest;
    return slot;
  }
  const ImageSlot& Slot(std::size_t shader) const {
    return shaders[shader].surfaces[0][Element::kLambertian];
  }
  std::string folder;
};

TEST_F(TextureFiles, FilesWithoutAPictureCountAsMissing) {
  Write("text.png", "no picture at all");
  Write("empty.hdr", "");
  Write("bits.pbm", "P4\n8 1\n\x5a");  // one bit a pixel
  Write("cut.ppm", "P6\n400");
  std::filesystem::create_directory(folder + "/folder.png");
  const std::string names[] = {"text.png", "empty.hdr", "bits.pbm", "cut.ppm", "folder.png"};
  for (const std::string& name : names) AddSlot(name);
  const std::string text = Initialize();
  for (std::size_t i = 0; i < std::size(names); ++i) {
    EXPECT_NE(text.find("error :( \timage - " + names[i] + "\tcannot be found\n"), std::string::npos)
        << names[i];
    EXPECT_EQ(Slot(i).image, kNone);
    EXPECT_EQ(LookUp(Slot(i), {0.3f, 0.3f}), kWhite);
    EXPECT_FALSE(shaders[i].surfaces[0].hasImage);
  }
}

TEST_F(TextureFiles, WordsReadAsBytesAndPalettesAsTheirIndices) {
  Write("words.pgm", std::string("P5\n2 1\n65535\n\xff\xff\x00\x05", 18));
  Write("words.ppm", std::string("P6\n1 1\n65535\n\xff\xff\x00\xff\x00\x01", 20));
  Write("bytes.pgm", std::string("P5\n2 1\n255\n\x80\xff", 13));
  // Four by one pixels of 8 bits, with two palette entries that say red and green.
  std::string bmp("BM", 2);
  const auto number = [&](unsigned value, int bytes) {
    for (int i = 0; i < bytes; ++i) bmp += static_cast<char>(value >> (8 * i) & 255U);
  };
  const unsigned offset = 14 + 40 + 8;
  number(offset + 4, 4), number(0, 4), number(offset, 4);
  number(40, 4), number(4, 4), number(1, 4), number(1, 2), number(8, 2);
  number(0, 4), number(4, 4), number(0, 4), number(0, 4), number(2, 4), number(0, 4);
  bmp += std::string("\0\0\xff\0\0\xff\0\0", 8) + std::string("\0\1\1\0", 4);
  Write("palette.bmp", bmp);
  for (const char* name : {"words.pgm", "words.ppm", "bytes.pgm", "palette.bmp"}) AddSlot(name);
  ASSERT_EQ(Initialize().find("error"), std::string::npos);

  const auto expectNear = [](Vec3 value, Vec3 expected) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(value[i], expected[i], 1e-4) << i;
  };
  expectNear(LookUp(Slot(0), {0, 0}), 257 * kWhite);
  expectNear(LookUp(Slot(0), {0.5f, 0}), 5 / 255.0f * kWhite);
  expectNear(LookUp(Slot(1), {0, 0}), {257, 1, 1 / 255.0f});
  expectNear(LookUp(Slot(2), {0, 0}), 128 / 255.0f * kWhite);
  expectNear(LookUp(Slot(2), {0.5f, 0}), kWhite);
  expectNear(LookUp(Slot(3), {0.25f, 0}), 1 / 255.0f * kWhite);
  EXPECT_EQ(LookUp(Slot(3), {0.75f, 0}), kBlack);
}

// --- The shading point -------------------------------------------------------------------------------------

struct PointCase {
  Shader shader;
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

void Finish(PointCase& c, bool frontFace = true) {
  c.point.layer = &c.layer;
  FinishShadingPoint(c.point, c.shader, frontFace);
}

void ExpectOrthonormal(const ShadingPoint& p) {
  for (Vec3 v : {p.tangent, p.bitangent, p.normal}) EXPECT_NEAR(Dot(v, v), 1, 1e-5);
  EXPECT_NEAR(Dot(p.tangent, p.bitangent), 0, 1e-5);
  EXPECT_NEAR(Dot(p.tangent, p.normal), 0, 1e-5);
  EXPECT_NEAR(Dot(p.bitangent, p.normal), 0, 1e-5);
}

TEST_F(Shading, Fresnel) {
  struct Row {
    float ior, height, reflectance;
    Material material;
  };
  const float grazing = 0.04f + 0.96f * std::pow(0.5f, 5.0f);
  for (const Row& row :
       {Row{1, 0.3f, 0, Material::kConductor}, Row{1.5f, 1, 0.04f, Material::kDielectric},
        Row{1.5f, 0.5f, grazing, Material::kConductor}, Row{1.5f, 1, 0.0769231f, Material::kThinDielectric},
        Row{1.5f, 0, 1, Material::kThinDielectric}, Row{-1, 1, 1, Material::kThinDielectric},
        Row{0, 1, 1, Material::kDielectric}}) {
    PointCase c = MakePoint(row.ior, {std::sqrt(1 - row.height * row.height), 0, row.height});
    c.layer.material = row.material;
    Finish(c);
    EXPECT_NEAR(c.point.specularWeight, row.reflectance, 1e-5) << row.ior << ' ' << row.height;
    EXPECT_NEAR(c.point.diffuseWeight, 1 - row.reflectance, 1e-5);
    EXPECT_TRUE(std::isfinite(c.point.iorRatio));
  }
}

TEST_F(Shading, RatioOfIndicesDependsOnTheSide) {
  PointCase c = MakePoint(1.5f, {0, 0, 1});
  c.layer.material = Material::kDielectric;
  Finish(c, true);
  EXPECT_FLOAT_EQ(c.point.iorRatio, 1 / 1.5f);
  Finish(c, false);
  EXPECT_FLOAT_EQ(c.point.iorRatio, 1.5f);
  c.layer.material = Material::kThinDielectric;
  Finish(c, false);
  EXPECT_EQ(c.point.iorRatio, 1);

  c.point.useDensity = c.layer.isPlain = true;
  Finish(c);
  EXPECT_EQ(c.point.specularWeight, 0);
  EXPECT_EQ(c.point.diffuseWeight, 1);
}

TEST_F(Shading, MirrorDirectionNeverLeavesThroughTheSurface) {
  PointCase c = MakePoint(1, {1, 0, 0.1f});
  c.point.normal = SafeNormalize({-0.5f, 0, 1});  // turned away: the mirror ray would go down
  Finish(c);
  EXPECT_EQ(c.point.normal, c.point.geometricNormal);
  EXPECT_FLOAT_EQ(c.point.reflectCosine, c.point.outgoing.z);
  const Vec3 harmless = SafeNormalize({0.1f, 0, 1});
  c = MakePoint(1, {0.2f, 0, 1});
  c.point.normal = harmless;
  Finish(c);
  EXPECT_EQ(c.point.normal, harmless);
}

TEST_F(Shading, AngleTurnsTheFrame) {
  for (float turns : {0.25f, 0.1f, -0.4f, 3.7f, std::nanf("")}) {
    PointCase c = MakePoint(1, {0, 0, 1});
    c.layer.hasAngle = true;
    c.layer[Element::kAngle].color = turns * kWhite;
    Finish(c);
    ExpectOrthonormal(c.point);
    if (turns == 0.25f) {
      EXPECT_NEAR(c.point.tangent.y, -1, 1e-5);
    }
  }
}

TEST_F(Shading, NormalMapKeepsTheFrameOrthonormal) {
  ImageBuffer& image = images.emplace_back();
  image.width = image.height = 1;
  image.floatPixels = {0, 0, 0};
  for (Vec3 texel : {Vec3{0.3f, -0.2f, 0.9f}, Vec3{1, 0, 0}, Vec3{0, 1, 1}, Vec3{}, Vec3{0, 0, 1e-3f}}) {
    image.floatPixels = {texel.x, texel.y, texel.z};
    PointCase c = MakePoint(1, texel == Vec3{} ? Vec3{0, 0, 1} : texel + Vec3{0, 0, 0.01f});
    // Steep enough for the mirror guard to let every bent normal pass: it would leave the tangents behind.
    if (texel.x == 1) c.point.geometricNormal = SafeNormalize({1, 0, 1});
    c.layer.hasNormalMap = true;
    c.layer[Element::kNormal].image = 0;
    Finish(c);
    ExpectOrthonormal(c.point);
    const Vec3 expected = texel == Vec3{} ? Vec3{0, 0, 1} : SafeNormalize(texel);
    EXPECT_NEAR(Dot(c.point.normal, expected), 1, 1e-5);
  }
}

TEST_F(Shading, GlossyWidths) {
  PointCase c = MakePoint(1, {0, 0, 1});
  c.layer[Element::kRoughness].color = 0.2f * kWhite;
  Finish(c);
  EXPECT_EQ(c.point.alphaX, 0);  // a layer without a glossy colour has no widths
  c.layer.hasGlossy = true;
  c.layer[Element::kRoughness].color = kBlack;
  Finish(c);
  EXPECT_FLOAT_EQ(c.point.alphaX, 1e-6f);
  EXPECT_FLOAT_EQ(c.point.alphaY, 1e-6f);
  c.layer.isGlossy = c.layer.isAnisotropic = true;
  c.layer[Element::kRoughness].color = 0.2f * kWhite;
  c.layer[Element::kAnisotropy].color = 0.5f * kWhite;
  Finish(c);
  EXPECT_NEAR(c.point.alphaX, 0.1f, 1e-5);
  EXPECT_NEAR(c.point.alphaY, 0.4f, 1e-5);
  for (float hostile : {1.0f, 2.0f, -kFarthest, -INFINITY, std::nanf("")}) {
    c.layer[Element::kAnisotropy].color = hostile * kWhite;
    c.layer[Element::kRoughness].color = -hostile * kWhite;
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
  EXPECT_EQ(LookUpTexture(grid, slot, {1, 0}).x, 0);
  EXPECT_EQ(LookUpTexture(grid, slot, {-0.25f, 0}).x, 3);
  EXPECT_EQ(LookUpTexture(grid, slot, {-1, -0.5f}), (Vec3{0, 1, 1}));
  EXPECT_EQ(LookUpTexture(grid, slot, {7.3f, 0}).x, 1);
  slot.wrapU = slot.wrapV = 1;
  EXPECT_EQ(LookUpTexture(grid, slot, {1, 5}), (Vec3{3, 1, 1}));
  EXPECT_EQ(LookUpTexture(grid, slot, {-9, -1}), (Vec3{0, 0, 1}));
  for (int mode : {-128, 2, 127}) {
    slot.wrapU = slot.wrapV = static_cast<std::int8_t>(mode);
    EXPECT_EQ(LookUpTexture(grid, slot, {0.5f, 0.5f}), (Vec3{2, 1, 1}));
    for (float far : {-1e30f, -5.0f, 1.0f, 2.0f, 1e9f, kFarthest, std::nanf("")})
      EXPECT_TRUE(IsFinite(LookUpTexture(grid, slot, {far, far})));
    EXPECT_EQ(LookUpTexture(grid, slot, {0, 3}), kBlack);
  }
  EXPECT_EQ(LookUpTexture(ImageBuffer(), slot, {0.5f, 0.5f}), kBlack);
}

TEST_F(Shading, Samplers) {
  const ImageBuffer grid = MakeGrid();
  ImageSlot slot;
  const Vec2 uv = {1.3f / 4, 0.25f / 2};
  const Vec3 exact = {1.3f, 0.25f, 1};
  const Vec3 bilinear = LookUpTexture(grid, slot, uv);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(bilinear[i], exact[i], 1e-5);
  slot.pixelSampler = PixelSampler::kStochastic;
  Vec3 sum;
  constexpr int kDraws = 20000;
  for (int i = 0; i < kDraws; ++i) {
    const Vec3 texel = LookUpTexture(grid, slot, uv);
    EXPECT_EQ(texel.x, std::floor(texel.x));
    sum += texel;
  }
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(sum[i] / kDraws, exact[i], 0.016);  // five standard deviations
  slot.pixelSampler = static_cast<PixelSampler>(9);
  EXPECT_EQ(LookUpTexture(grid, slot, uv), kBlack);
}

// Pictures of every stored form with the same content, as far as the form can hold it.
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
  for (PackedPixel& p : packed.packedPixels) {
    const auto byte = [] { return static_cast<std::uint8_t>(RandomBits()); };
    p = {byte(), byte(), byte(), static_cast<std::uint8_t>(126 + RandomBits() % 4)};
  }
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

TEST_F(Shading, StochasticIsBilinearInTheMean) {
  constexpr int kDraws = 4000;
  for (const ImageBuffer& image : RandomPictures(5, 3))
    for (Vec2 uv : {Vec2{0.37f, 0.61f}, Vec2{0.95f, 0.9f}, Vec2{-0.05f, 1.4f}}) {
      ImageSlot slot;
      slot.gamma = 1.5f;
      const Vec3 expected = LookUpTexture(image, slot, uv);
      slot.pixelSampler = PixelSampler::kStochastic;
      double sum = 0, squares = 0;
      for (int i = 0; i < kDraws; ++i) {
        const double value = LookUpTexture(image, slot, uv).y;
        sum += value;
        squares += value * value;
      }
      const double mean = sum / kDraws, variance = std::max(0.0, squares / kDraws - mean * mean);
      EXPECT_NEAR(mean, expected.y, 5 * std::sqrt(variance / kDraws) + 1e-5 * mean) << image.bits;
    }
}

// A picture that lacks pixels, whatever its format promises, is black where it lacks them.
TEST_F(Shading, PicturesWithoutPixelsAreBlack) {
  for (ImageBuffer image : RandomPictures(4, 4)) {
    image.bitPixels = {};
    image.bytePixels = {};
    image.wordPixels = {};
    image.floatPixels = {};
    image.doublePixels = {};
    image.packedPixels = {};
    for (const PixelSampler sampler :
         {PixelSampler::kNearest, PixelSampler::kStochastic, PixelSampler::kBilinear}) {
      ImageSlot slot;
      slot.pixelSampler = sampler;
      EXPECT_EQ(LookUpTexture(image, slot, {0.4f, 0.9f}), kBlack);
    }
  }
  ImageBuffer two;
  Allocate(two, 2, 2, 2, 8, false);
  two.bytePixels.assign(8, 255);
  EXPECT_EQ(LookUpTexture(two, {}, {0.4f, 0.9f}), kBlack);
}

TEST_F(Shading, GammaComesBeforeTheFilter) {
  const ImageBuffer grid = MakeGrid();
  ImageSlot slot;
  slot.gamma = 2;
  EXPECT_NEAR(LookUpTexture(grid, slot, {2.5f / 4, 0}).x, (4 + 9) / 2.0f, 1e-5);
  slot.gamma = 0;
  EXPECT_EQ(LookUpTexture(grid, slot, {0, 0}), kWhite);
  slot.gamma = -1;
  EXPECT_TRUE(IsFinite(LookUpTexture(grid, slot, {0, 0})));
}

TEST_F(Shading, Matrices) {
  const ImageBuffer grid = MakeGrid();
  ImageSlot slot;
  slot.pixelSampler = PixelSampler::kNearest;
  slot.uvMatrix = {{{0, 1, 0}, {1, 0, 0}, {0, 0, 0.5f}}};
  slot.colorMatrix = {{{1, 2, 3, 4}, {0, 1, 0, 0}, {0, 0, 1, 0}, {1, 0, 1, 2}}};
  const Vec2 uv = {0.25f, 0.375f};  // (0.75, 0.5) once swapped and doubled
  EXPECT_EQ(LookUpTexture(grid, slot, uv), (Vec3{1, 0, 1}));
  slot.uvMatrixIsIdentity = false;
  EXPECT_EQ(LookUpTexture(grid, slot, uv), (Vec3{3, 1, 1}));
  slot.colorMatrixIsIdentity = false;
  const float d = 3 + 1 + 2;  // the last row's third number goes with green
  const Vec3 c = LookUpTexture(grid, slot, uv);
  EXPECT_FLOAT_EQ(c.x, (3 + 2 + 3 + 4) / d);
  EXPECT_FLOAT_EQ(c.y, 1 / d);
  slot.colorMatrix.m[3][0] = slot.colorMatrix.m[3][2] = slot.colorMatrix.m[3][3] = 0;
  slot.uvMatrix.m[2][2] = 0;
  EXPECT_EQ(LookUpTexture(grid, slot, uv), kBlack);
  slot.uvMatrixIsIdentity = true;
  EXPECT_EQ(LookUpTexture(grid, slot, uv), kBlack);
}

TEST_F(Shading, ImageTimesColor) {
  images.push_back(MakeGrid());
  ImageSlot slot;
  slot.image = 0;
  EXPECT_EQ(LookUp(slot, {0.25f, 0}), kBlack);
  slot.color = {0.5f, 1, 2};
  EXPECT_EQ(LookUp(slot, {0.25f, 0}), (Vec3{0.5f, 0, 2}));
  EXPECT_EQ(FindOrAddTexture(""), kNone);
  EXPECT_EQ(FindOrAddTexture("a.png"), 1);
  EXPECT_EQ(FindOrAddTexture("A.png"), 2);
  EXPECT_EQ(FindOrAddTexture("a.png"), 1);
}

// --- Directions and media ----------------------------------------------------------------------------------

TEST_F(Shading, CosineDirectionsFollowTheCosine) {
  constexpr int kSide = 256, kRings = 8, kSectors = 8;
  int counts[kRings][kSectors] = {};
  for (int i = 0; i < kSide; ++i)
    for (int j = 0; j < kSide; ++j) {
      const float u = (static_cast<float>(i) + 0.5f) / kSide, v = (static_cast<float>(j) + 0.5f) / kSide;
      const Vec3 d = CosineDirection(u, v);
      ASSERT_NEAR(Dot(d, d), 1, 1e-5);
      ASSERT_GT(d.z, 0);
      // With density cos / pi both 1 - z^2 and the azimuth are uniform.
      const float ring = (1 - d.z * d.z) * kRings, turn = std::atan2(d.y, d.x) / (2 * kPi) + 0.5f;
      ++counts[std::min(kRings - 1, static_cast<int>(ring))]
              [std::min(kSectors - 1, static_cast<int>(turn * kSectors))];
    }
  constexpr double kExpected = double{kSide} * kSide / (kRings * kSectors);
  for (const auto& ring : counts)
    for (int count : ring) EXPECT_NEAR(count, kExpected, 0.1 * kExpected);
  EXPECT_EQ(ConcentricDisk(0.5f, 0.5f), (Vec2{0, 0}));
}

TEST_F(Shading, VolumeCoefficients) {
  VolumeShader volume;
  volume.transmittance = {0.5f, 0, 1};
  volume.albedo = {0.5f, 0.1f, 1};
  volume.averageCosine = -3;
  InitializeVolume(volume);
  EXPECT_FLOAT_EQ(volume.sigmaT.x, std::log(2.0f));
  EXPECT_EQ(volume.sigmaT.y, 10);
  EXPECT_FLOAT_EQ(volume.sigmaMax, 1);
  EXPECT_FLOAT_EQ(volume.sigmaTShifted.y, 9);
  EXPECT_EQ(volume.averageCosine, -1);
  VolumeShader clear;
  InitializeVolume(clear);
  EXPECT_TRUE(IsFinite(clear.sigmaSNormalized));
  clear.transmittance = 2 * kWhite;
  clear.albedo = kWhite;
  InitializeVolume(clear);
  EXPECT_EQ(clear.albedo, kBlack);
}

}  // namespace
}  // namespace zp
