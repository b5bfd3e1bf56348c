// Files of layers: what is written comes back, and no bytes do harm.

#include "post/layers.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <random>

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

}  // namespace
}  // namespace zp
