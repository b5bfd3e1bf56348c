// Files of layers: what is written comes back, and no bytes do harm.

#include "post/layers.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <random>

#include "post/compare.h"
#include "post/denoise.h"
#include "post/despike.h"
#include "post/look.h"
#include "program_fixture.h"
#include "surroundings.h"

namespace zp {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

LayeredPicture MakePicture() {
  LayeredPicture picture = {{0, 0, 40, 300}, {3, -5, 23, 295}, {}, {}};
  const std::size_t pixels = PixelCount(picture);
  for (Layer layer :
       {Layer{"", {"R", "G", "B", "A"}, LayerKind::kHalf, {}},
        Layer{"N", {"X", "Y", "Z"}, LayerKind::kFloat, {}}, Layer{"Z", {"Z"}, LayerKind::kFloat, {}},
        Layer{"count", {"count"}, LayerKind::kWhole, {}},
        Layer{"object00", {"R", "G", "B", "A"}, LayerKind::kId, {}}}) {
    for (std::size_t i = 0; i < pixels * layer.channels.size(); ++i)
      layer.numbers.push_back(static_cast<float>(i % 1021));
    picture.layers.push_back(layer);
  }
  picture.layers[2].numbers[7] = kInfinity;
  picture.layers[4].numbers[9] = std::bit_cast<float>(0xDEADBEEFU);
  picture.attributes = {{"comments", std::string("six")},
                        {"cryptomatte/0123456/name", std::string("object")},
                        {"worldToCamera", std::array<float, 16>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}},
                        {"zephlore:passes", 16},
                        {"zephlore:seconds", 0.1}};
  return picture;
}

TEST(Layers, ComeBackAsTheyWereWritten) {
  const TemporaryFolder folder;
  LayeredPicture picture = MakePicture(), back;
  std::size_t held = 0;
  picture.layers[0].numbers[5] = 1e6f;
  picture.layers[0].numbers[6] = -kInfinity;
  ASSERT_EQ(WriteLayers(folder / "a.exr", picture, &held), "");
  EXPECT_EQ(held, 2U);
  picture.layers[0].numbers[5] = 65504;
  picture.layers[0].numbers[6] = -65504;
  ASSERT_EQ(ReadLayers(folder / "a.exr", back), "");
  EXPECT_EQ(back.data, picture.data);
  EXPECT_EQ(back.display, picture.display);
  ASSERT_EQ(back.layers.size(), picture.layers.size());
  for (const Layer& layer : picture.layers) {
    const Layer* same = FindLayer(back, layer.name);
    ASSERT_NE(same, nullptr) << layer.name;
    EXPECT_EQ(same->channels, layer.channels);
    EXPECT_EQ(same->kind, layer.kind);
    EXPECT_EQ(same->numbers, layer.numbers) << layer.name;
  }
  for (const Attribute& attribute : picture.attributes) {
    const AttributeValue* value = FindAttribute(back, attribute.name);
    ASSERT_NE(value, nullptr) << attribute.name;
    EXPECT_EQ(value->index(), attribute.value.index()) << attribute.name;
  }
}

TEST(Layers, OfDamagedFilesAreNoneOrWhole) {
  const TemporaryFolder folder;
  ASSERT_EQ(WriteLayers(folder / "a.exr", MakePicture()), "");
  const std::string bytes = ReadFile(folder / "a.exr");
  std::mt19937 random(1);
  for (int i = 0; i < 300; ++i) {
    std::string damaged = bytes;
    if (i % 3 == 0) damaged.resize(random() % bytes.size());
    const std::size_t reach = i % 2 == 0 ? std::min<std::size_t>(900, damaged.size()) : damaged.size();
    for (unsigned n = random() % 4; n-- > 0 && reach > 4;)
      damaged[4 + random() % (reach - 4)] = static_cast<char>(random());
    WriteFile(folder / "b.exr", damaged);
    LayeredPicture picture;
    const std::string reason = ReadLayers(folder / "b.exr", picture);
    EXPECT_EQ(reason.empty(), !picture.layers.empty()) << reason;
    for (const Layer& layer : picture.layers)
      EXPECT_EQ(layer.numbers.size(), PixelCount(picture) * layer.channels.size());
  }
}

// Two squares of other colour and depth under a slope of light, with noise of `spread` in each half set.
LayeredPicture MakeRender(float spread) {
  constexpr int kSide = 48;
  LayeredPicture picture = {{0, 0, kSide, kSide}, {0, 0, kSide, kSide}, {}, {}};
  Layer beauty = {"", {"R", "G", "B"}, LayerKind::kFloat, {}}, half0 = beauty, half1 = beauty,
        albedo = beauty;
  Layer normal = {"N", {"X", "Y", "Z"}, LayerKind::kFloat, {}}, depth = {"Z", {"Z"}, LayerKind::kFloat, {}};
  half0.name = "half0", half1.name = "half1", albedo.name = "albedo";
  std::mt19937 random(1);
  std::normal_distribution<float> noise(0, 1);
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kSide; ++x) {
      const bool isLeft = x < kSide / 2;
      const float color = (isLeft ? 0.8f : 0.2f) * ((x + y) % 7 == 0 ? 0.5f : 1);
      const float light = color * (1 + 0.02f * static_cast<float>(y));
      for (int c = 0; c < 3; ++c) {
        half0.numbers.push_back(light * (1 + spread * noise(random)));
        half1.numbers.push_back(light * (1 + spread * noise(random)));
        beauty.numbers.push_back((half0.numbers.back() + half1.numbers.back()) / 2);
        albedo.numbers.push_back(color);
        normal.numbers.push_back(c == (isLeft ? 0 : 1));
      }
      depth.numbers.push_back(isLeft ? 2.0f : 5.0f);
    }
  picture.layers = {beauty, half0, half1, albedo, normal, depth};
  return picture;
}

double ErrorOf(const LayeredPicture& picture) {
  std::string problem;
  return Compare(picture, MakeRender(0), problem).layers.front().relative;
}

TEST(Denoise, TakesNoiseAndLeavesTheRest) {
  LayeredPicture sound = MakeRender(0), noisy = MakeRender(0.2f);
  const double before = ErrorOf(noisy);
  noisy.layers.push_back(noisy.layers.front());
  noisy.layers.push_back(noisy.layers.front());
  noisy.layers[6].name = "light_a", noisy.layers[7].name = "light_rest";
  for (float& number : noisy.layers[6].numbers) number *= 0.25f;
  for (float& number : noisy.layers[7].numbers) number *= 0.75f;
  EXPECT_EQ(MissingForDenoise(sound), "");
  ASSERT_TRUE(Denoise(sound, {}) && Denoise(noisy, {.lightGroups = true}));
  EXPECT_LT(ErrorOf(sound), 1e-5);
  EXPECT_LT(ErrorOf(noisy), before / 4);
  for (std::size_t i = 0; i < noisy.layers[0].numbers.size(); ++i)
    EXPECT_NEAR(noisy.layers[6].numbers[i] + noisy.layers[7].numbers[i], noisy.layers[0].numbers[i], 1e-5f);
  sound.layers.erase(sound.layers.begin() + 2, sound.layers.begin() + 4);
  EXPECT_EQ(MissingForDenoise(sound), "half1, albedo");
}

TEST(Despike, TakesDotsOfOneHalfSetAlone) {
  LayeredPicture picture = MakeRender(0);
  for (std::size_t pixel : {500, 1500}) {  // the second one is a lamp
    picture.layers[0].numbers[3 * pixel] = picture.layers[1].numbers[3 * pixel] = 100;
    if (pixel == 1500) picture.layers[2].numbers[3 * pixel] = 100;
  }
  EXPECT_EQ(Despike(picture, 3), 1U);
  EXPECT_LT(picture.layers[0].numbers[1500], 2);
  EXPECT_EQ(picture.layers[0].numbers[4500], 100);
}

TEST(Look, BalancesTheColourOfLight) {
  ExpectNear(WhiteBalance(6504) * Vec3{0.2f, 0.5f, 0.9f}, {0.2f, 0.5f, 0.9f}, 1e-4f);
  const Vec3 white =
      WhiteBalance(3000) * Vec3{1.7702f, 0.8445f, 0.2721f};  // a black body's x, y of 0.4369, 0.4041
  for (int c : {0, 2}) EXPECT_NEAR(white[c] / white.y, 1, 0.02f) << c;
}

class ImageVerbs : public ProgramTest {};

TEST_F(ImageVerbs, ExitAsTheyFind) {
  LayeredPicture a = MakeRender(0), b = MakeRender(0.2f);
  a.layers[0].numbers[0] = 3;
  ASSERT_EQ(WriteLayers((work / "a.exr").string(), a), "");
  ASSERT_EQ(WriteLayers((work / "b.exr").string(), b), "");
  b.layers[4].name = "light_key";
  ASSERT_EQ(WriteLayers((work / "c.exr").string(), b), "");
  WriteFile(work / "text.exr", "no picture");
  for (const auto& [arguments, status, tells] : std::vector<std::tuple<std::string, int, std::string>>{
           {"image diff a.exr b.exr", 0, "worst pixel 0,0 R: 3 and"},
           {"image diff a.exr a.exr --threshold 0", 0, "max 0\n"},
           {"image diff a.exr b.exr --layer beauty --threshold 0.01", 1, "beauty"},
           {"image diff a.exr b.exr --layer Z --threshold 0.01 --picture d.png", 0, "Z "},
           {"image diff a.exr text.exr", 2, "'text.exr': it is of no known format"},
           {"image diff a.exr none.exr", 2, "it cannot be found"},
           {"image info a.exr", 0, "most 3 "},
           {"image mix a.exr x.exr --light key=2", 1, "it has no light groups"},
           {"image mix c.exr x.exr --light kay=2", 1, "did you mean 'key'?"},
           {"image mix c.exr x.exr --light key=2,0,1", 0, ""},
           {"image mix c.exr x.exr --light key=", 2, "'key=' is no weight"},
           {"image despike a.exr x.png", 0, "0 pixels of 2304"},
           {"denoise c.exr x.exr", 1, "it lacks the layers N"},
           {"denoise b.exr missing/x.exr", 1, "there is no folder"},
           {"view a.exr x.jpg --layer N --curve filmic --white-balance 4000", 0, ""},
           {"view a.exr x.png --layer M", 1, "it has the beauty, N, Z"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, status) << arguments << outcome.errors;
    EXPECT_NE((outcome.output + outcome.errors).find(tells), std::string::npos)
        << arguments << outcome.output;
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), outcome.errors.empty() ? 0 : 1);
  }
  EXPECT_TRUE(std::filesystem::exists(work / "d.png"));
  LayeredPicture mixed;
  ASSERT_EQ(ReadLayers((work / "x.exr").string(), mixed), "");
  EXPECT_EQ(FindLayer(mixed, "")->numbers[0], 2);
  EXPECT_EQ(FindLayer(mixed, "")->numbers[1], 0);
}

}  // namespace
}  // namespace zp
