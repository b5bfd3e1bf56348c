// Strands and arrays from files: what the formats promise, and what files do that lie.

#include <FreeImage.h>
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <limits>
#include <sstream>

#include "core/index.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
#include "scene/blocks.h"
#include "shading/shading.h"
#include "surroundings.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

class ReadersTest : public testing::Test {
 protected:
  void SetUp() override {
    shaders.clear();
    AddUndefinedShader();
    images.clear();
    imageSearchPaths.assign(1, folder.path.string());
    missingFiles = 0;
  }
  void TearDown() override {
    shaders.clear();
    imageSearchPaths.clear();
    missingFiles = 0;
  }

  std::string Write(const std::string& name, const std::string& bytes) const {
    WriteFile(folder / name, bytes);
    return folder / name;
  }
  // Runs `read` and keeps what it printed.
  template <class Read>
  auto Rows(Read&& read) {
    decltype(read()) result;
    rows = Printed([&] { result = read(); });
    return result;
  }
  bool Hair(const std::string& bytes, Part& part) {
    return Rows([&] { return ReadHair(bytes, "x.hair", part); });
  }
  Part Fur(const std::string& content) {
    return Rows([&] {
      std::istringstream stream(content);
      SceneText text = {stream};
      Part part;
      ReadFur(text, part);
      return part;
    });
  }
  ArrayResult Array(ArrayKind kind, const std::string& name, Part& part) {
    return Rows([&] { return ReadArrayImage(kind, name, part); });
  }

  ArrayResult Array(ArrayKind kind, const ImageBuffer& image, Part& part) {
    return Rows([&] { return AddArrayImage(kind, image, part); });
  }
  // The text is one of the rows, once.
  void ExpectRow(const std::string& text) const {
    EXPECT_NE(rows.find(text + "\n"), rows.npos) << rows;
    EXPECT_EQ(rows.find(text), rows.rfind(text)) << rows;
  }

  const TemporaryFolder folder;
  std::string rows;
};

using Lengths = std::vector<std::uint32_t>;
constexpr const char* kTooMany = "object - strands ask for more points than there are";

template <class T>
std::string Bytes(const std::vector<T>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)};
}

constexpr std::uint32_t kSegments = 1, kPoints = 2, kThickness = 4, kTransparency = 8, kColor = 16;

struct HairFile {
  std::uint32_t hairCount = 0, pointCount = 0, arrays = 0, defaultSegments = 0;
  float defaultThickness = 0.25f;
  std::vector<std::uint16_t> segments = {};
  std::string signature = "HAIR";

  // Point i is (i, 10 i, -i); its thickness is i / 8.
  std::string Text() const {
    const std::vector<std::uint32_t> numbers = {hairCount, pointCount, arrays, defaultSegments};
    const std::vector<float> defaults = {defaultThickness, 0.5f, 1, 0, 0};
    std::string text = signature + Bytes(numbers) + Bytes(defaults) + std::string(88, 'i');
    std::vector<float> points, thickness;
    for (std::uint32_t i = 0; i < pointCount; ++i) {
      const auto x = static_cast<float>(i);
      points.insert(points.end(), {x, 10 * x, -x});
      thickness.push_back(x / 8);
    }
    if (arrays & kSegments) text += Bytes(segments);
    if (arrays & kPoints) text += Bytes(points);
    if (arrays & kThickness) text += Bytes(thickness);
    if (arrays & kTransparency) text += Bytes(std::vector<float>(pointCount, 0.75f));
    if (arrays & kColor) text += Bytes(std::vector<float>(3 * std::size_t{pointCount}, 0.5f));
    return text;
  }
};

TEST_F(ReadersTest, HairWithEveryCombinationOfArrays) {
  for (std::uint32_t arrays = 0; arrays < 64; ++arrays) {  // the sixth bit has no meaning
    SCOPED_TRACE(arrays);
    HairFile file = {3, 9, arrays, 2};
    file.segments = {1, 0, 5};  // 2 + 1 + 6 points
    Part part;
    // What the arrays held before is replaced.
    part.positions.assign(20, {7, 7, 7});
    part.uvSets[0].values.assign(1, {7, 7});
    ASSERT_TRUE(Hair(file.Text(), part));
    EXPECT_EQ(rows, "");
    ASSERT_EQ(part.positions.size(), 9U);
    EXPECT_EQ(ValidateStrands(part), "");
    EXPECT_EQ(part.strandLengths, (arrays & kSegments) != 0 ? (Lengths{1, 0, 5}) : (Lengths{2, 2, 2}));
    for (std::size_t i = 0; i < 9; ++i) {
      const auto x = static_cast<float>(i);
      EXPECT_EQ(part.positions[i], (arrays & kPoints) ? (Vec3{x, 10 * x, -x}) : Vec3{});
      EXPECT_EQ(part.uvSets[0].values[i], (Vec2{x / 9, (x + 1) / 9}));
      EXPECT_EQ(part.scalarSets[0].values[i], (arrays & kThickness) ? x / 16 : 0.125f);
    }
  }
  EXPECT_EQ(missingFiles, 0);
}

TEST_F(ReadersTest, HairCutAnywhereSaysWhereAndKeepsThePart) {
  const HairFile file = {2, 5, 31, 0, 0.25f, {2, 1}};
  const std::string whole = file.Text();
  // The end of each array, and the row of a file that ends before it.
  const std::vector<std::pair<std::size_t, std::string>> ends = {
      {128, "cannot open hair file header "},  {132, "cannot read hair segments "},
      {192, "cannot read hair points "},       {212, "cannot read hair thickness "},
      {232, "cannot read hair transparency "}, {292, "cannot read hair color "},
  };
  ASSERT_EQ(whole.size(), ends.back().first);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    SCOPED_TRACE(length);
    std::size_t i = 0;
    while (length >= ends[i].first) ++i;
    Part part;
    part.positions.assign(1, {7, 7, 7});
    EXPECT_FALSE(Hair(whole.substr(0, length), part));
    EXPECT_EQ(rows, ends[i].second + "x.hair\n");
    // Through a file, which is read in pieces, likewise.
    const std::string path = Write("cut.hair", whole.substr(0, length));
    EXPECT_FALSE(Rows([&] { return ReadHairFile(path, part); }));
    EXPECT_EQ(rows, ends[i].second + path + "\n");
    EXPECT_EQ(part.positions.size(), 1U);
    EXPECT_TRUE(part.cylinders.empty() && part.strandLengths.empty());
  }
  Part part;
  EXPECT_TRUE(Hair(whole + "and what follows", part));
  HairFile wrong = file;
  wrong.signature = "HAIr";
  EXPECT_FALSE(Hair(wrong.Text(), part));
  EXPECT_EQ(rows, "hair file has wrong signature x.hair\n");
  for (const std::string& path : {folder / "none.hair", folder.path.string()}) {
    missingFiles = 0;
    EXPECT_FALSE(Rows([&] { return ReadHairFile(path, part); }));
    EXPECT_EQ(rows, "cannot open " + path + "\n");
    EXPECT_EQ(missingFiles, 1);
  }
}

TEST_F(ReadersTest, HairFilesOfManyBlocksAreThoseFromMemory) {
  HairFile file = {1000, 200'000, 31, 0};
  file.segments.assign(1000, 199);
  const std::string text = file.Text();
  Part fromFile, fromMemory;
  const std::string path = Write("long.hair", text + "tail");
  ASSERT_TRUE(Rows([&] { return ReadHairFile(path, fromFile); }));
  ASSERT_TRUE(Hair(text, fromMemory));
  EXPECT_EQ(fromFile.positions, fromMemory.positions);
  EXPECT_EQ(fromFile.cylinders, fromMemory.cylinders);
  EXPECT_EQ(fromFile.cylinders.size(), 199'000U);
}

TEST_F(ReadersTest, HairHeadersThatLieCostNothing) {
  constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
  const auto patch = [](std::string text, std::size_t offset, std::uint32_t value) {
    std::memcpy(text.data() + offset, &value, sizeof value);
    return text;
  };
  const std::size_t hairCount = 4, pointCount = 8;  // where they stand
  const auto listed = [](std::vector<std::uint16_t> segments, std::uint32_t points) {
    const auto hairs = static_cast<std::uint32_t>(segments.size());
    return HairFile{hairs, points, kSegments | kPoints, 0, 0.25f, std::move(segments)}.Text();
  };
  struct Case {
    std::string text, row;
    Lengths lengths;
  };
  const Case cases[] = {
      {patch(listed({1, 1}, 4), hairCount, kMost), "cannot read hair segments x.hair", {}},
      {patch(listed({1, 1}, 4), pointCount, kMost), "cannot read hair points x.hair", {}},
      // Without an array of points nothing in the file bears the number out.
      {patch(HairFile{2, 4, 0, 1}.Text(), pointCount, kMost), "cannot read hair points x.hair", {}},
      // Strands without end, of no segments or too many, hold what points there are.
      {patch(HairFile{2, 4, kPoints, 0}.Text(), hairCount, kMost), kTooMany, {0, 0, 0, 0}},
      {HairFile{2, 4, kPoints, kMost}.Text(), kTooMany, {3}},
      {listed({1, 65535, 1, 1}, 6), kTooMany, {1, 3}},
      {listed({1, 1, 0, 1}, 6), kTooMany, {1, 1, 0, 0}},  // the last strand keeps its first point alone
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    Part part;
    EXPECT_EQ(Hair(c.text, part), !c.lengths.empty());
    ExpectRow(c.row);
    EXPECT_EQ(ValidateStrands(part), "");
    EXPECT_EQ(part.strandLengths, c.lengths);
    EXPECT_LE(part.positions.capacity(), 6U);
  }
}

TEST_F(ReadersTest, FurMatchesLengthsAndPositionsAtTheEnd) {
  const Part part =
      Fur("# position 9 9 9\nposition 1 2 3\n  segment 1 remark\nend\nposition 4 5 6\nsegment 2\r\n"
          "position -1 -2 -3\r\nposition 7 x 9\nhair 3\nposition 1e2 2\nposition 0 0 0\n# segment 1");
  EXPECT_EQ(part.positions,
            (std::vector<Vec3>{{1, 2, 3}, {4, 5, 6}, {-1, -2, -3}, {7, 0, 0}, {100, 2, 0}, {0, 0, 0}}));
  EXPECT_EQ(part.strandLengths, (Lengths{1, 2}));
  EXPECT_EQ(ValidateStrands(part), "");
  EXPECT_EQ(part.uvSets[0].values, std::vector<Vec2>(6));
  EXPECT_EQ(part.scalarSets[0].values, std::vector<float>(6, 0.003f));
  EXPECT_EQ(rows, "");
}

TEST_F(ReadersTest, FurThatAsksForTooMuchIsCut) {
  const std::string points = "position 0 0 0\nposition 1 0 0\nposition 2 0 0\n";
  const std::pair<const char*, Lengths> cases[] = {
      {"segment 3\n", {2}},
      {"segment 1\nsegment 2147483647\nsegment 0\n", {1, 0}},
      {"segment -1\nsegment 1\n", {1}},
      {"segment 0\nsegment 0\nsegment 0\nsegment 0\n", {0, 0, 0}},
  };
  for (const auto& [text, lengths] : cases) {
    const Part part = Fur(text + points);
    EXPECT_EQ(part.strandLengths, lengths) << text;
    EXPECT_EQ(ValidateStrands(part), "");
    ExpectRow(kTooMany);
  }
  // A number that cannot be read leaves a strand of one point.
  EXPECT_EQ(Fur("segment x\nsegment 1\n" + points).strandLengths, (Lengths{0, 1}));
  EXPECT_EQ(rows, "");
  EXPECT_TRUE(Fur("").positions.empty());

  Part part;
  for (const std::string& path : {folder / "none.fur", folder.path.string()}) {
    missingFiles = 0;
    EXPECT_FALSE(Rows([&] { return ReadFurFile(path, part); }));
    EXPECT_EQ(rows, "");
    EXPECT_EQ(missingFiles, 1);
  }
  EXPECT_TRUE(ReadFurFile(Write("a.fur", "segment 2\n" + points), part));
  EXPECT_EQ(part.strandLengths, Lengths{2});
}

TEST_F(ReadersTest, StrandsKnowTheirDirectionAndLength) {
  Part part =
      Fur("segment 2\nsegment 0\nsegment 1\nposition 0 0 0\nposition 0 0 1\nposition 1 0 1\nposition 9 9 9\n"
          "position 0 0 0\nposition 0 -1e-7 0\n");
  DeriveStrands(part);
  EXPECT_TRUE(shaders.at(0).usedByHair);
  ASSERT_EQ(part.scalarSets.size(), 2U);
  EXPECT_EQ(part.scalarSets[1].name, "parameter");
  // A strand without segments counts with the one before it: no cylinder tells where it starts.
  EXPECT_EQ(part.scalarSets[1].values, (std::vector<float>{0, 0.25f, 0.5f, 0.75f, 0, 0.5f}));
  const PackedVector up = {0, 0, 127}, across = {127, 0, 0};
  EXPECT_EQ(part.tangents,
            (std::vector<PackedVector>{up, Pack({1, 0, 1}), across, {}, {0, -127, 0}, {0, -127, 0}}));

  // A host's cylinders may stand in any order, and leave vertices out.
  Part mixed;
  mixed.positions = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {5, 0, 0}, {5, 1, 0}};
  mixed.cylinders = {3, 1};
  DeriveStrands(mixed);
  EXPECT_EQ(mixed.scalarSets[1].values, (std::vector<float>{0, 0, 0.5f, 0, 0.5f}));
  EXPECT_EQ(mixed.tangents, (std::vector<PackedVector>{{}, across, across, {0, 127, 0}, {0, 127, 0}}));
}

// A picture of the given components, in the order of its buffer.
ImageBuffer Picture(int width, int height, int channels, const std::vector<float>& components) {
  ImageBuffer image;
  Allocate(image, width, height, channels, 32, false);
  EXPECT_EQ(image.floatPixels.size(), components.size());
  image.floatPixels = components;
  image.fileName = "made";
  return image;
}

void Save(const fs::path& path, ImageBuffer image) {
  image.fileName = path.string();
  ASSERT_TRUE(SaveImage(image)) << path;
}

// The top row first into a TIFF file, which the renderer itself only writes in bytes.
void SaveTiff(const fs::path& path, int width, int height, int channels,
              const std::vector<float>& components) {
  const int bits = 32 * channels;
  FIBITMAP* bitmap = FreeImage_AllocateT(channels == 4 ? FIT_RGBAF : FIT_RGBF, width, height, bits, 0, 0, 0);
  ASSERT_NE(bitmap, nullptr);
  const std::size_t row = static_cast<std::size_t>(width) * static_cast<std::size_t>(channels);
  for (int y = 0; y < height; ++y)  // FreeImage counts from the bottom
    std::memcpy(FreeImage_GetScanLine(bitmap, height - 1 - y),
                components.data() + static_cast<std::size_t>(y) * row, row * sizeof(float));
  EXPECT_TRUE(FreeImage_Save(FIF_TIFF, bitmap, path.c_str(), 0));
  FreeImage_Unload(bitmap);
}

// Random bits make every kind of float but the infinities and what is no number.
std::vector<float> RandomFloats(std::size_t count) {
  std::vector<float> values;
  for (std::uint32_t state = 12345; values.size() < count; state = state * 1664525 + 1013904223)
    if (std::isfinite(std::bit_cast<float>(state))) values.push_back(std::bit_cast<float>(state));
  return values;
}

// Whole numbers as the bit patterns of floats.
std::vector<float> AsFloats(const std::vector<std::uint32_t>& numbers) {
  std::vector<float> values;
  for (const std::uint32_t number : numbers) values.push_back(std::bit_cast<float>(number));
  return values;
}

std::vector<std::uint32_t> Corners(const Part& part) {
  std::vector<std::uint32_t> corners;
  for (const Triangle& t : part.triangles) corners.insert(corners.end(), t.vertex, t.vertex + 3);
  return corners;
}

TEST_F(ReadersTest, VertexArraysComeThroughPicturesToTheBit) {
  constexpr int kWidth = 5, kHeight = 7;
  const std::vector<float> values = RandomFloats(3 * kWidth * kHeight);
  Save(folder / "a.pfm", Picture(kWidth, kHeight, 3, values));
  Part part;
  for (ArrayKind kind : {ArrayKind::kPosition, ArrayKind::kUv, ArrayKind::kNormal, ArrayKind::kTangent})
    EXPECT_EQ(Array(kind, "a.pfm", part), ArrayResult::kRead);
  EXPECT_EQ(rows, "");
  ASSERT_EQ(part.positions.size(), values.size() / 3);
  EXPECT_EQ(std::memcmp(part.positions.data(), values.data(), values.size() * sizeof(float)), 0);
  for (std::size_t i = 0; i < part.positions.size(); ++i) {
    const Vec3 pixel = {values[3 * i], values[3 * i + 1], values[3 * i + 2]};
    EXPECT_EQ(part.uvSets[0].values.at(i), (Vec2{pixel.x, pixel.y}));
    EXPECT_EQ(part.normals.at(i), Pack(pixel));
    EXPECT_EQ(part.tangents.at(i), Pack(pixel));
  }
  EXPECT_TRUE(images.empty());  // no texture was made of them
  // The texture of the name keeps what it is, and each load appends.
  ImageBuffer& texture = At(images, FindOrAddTexture("a.pfm"));
  ASSERT_TRUE(LoadTexture(texture));
  EXPECT_TRUE(texture.packed);
  EXPECT_EQ(Array(ArrayKind::kPosition, "a.pfm", part), ArrayResult::kRead);
  EXPECT_EQ(part.positions.size(), 2 * values.size() / 3);
  EXPECT_TRUE(texture.packed);
}

TEST_F(ReadersTest, TriangleIndicesAreBitPatterns) {
  Part part;
  part.positions.resize(70'000);
  const std::vector<std::uint32_t> indices = {0, 1, 2, 69'999, 65'536, 65'535, 255, 256, 1};
  SaveTiff(folder / "t.tif", 1, 3, 3, AsFloats(indices));
  EXPECT_EQ(Array(ArrayKind::kTriangle, "t.tif", part), ArrayResult::kRead);
  EXPECT_EQ(rows, "");
  EXPECT_EQ(Corners(part), indices);
  EXPECT_EQ(part.triangles.at(0).shader, 0);

  // What points outside goes, alone, with one row for all.
  part.triangles.clear();
  const ImageBuffer outside = Picture(3, 1, 3, AsFloats({70'000, 1, 2, 0, 1, 2, 0, 0xFFFFFFFF, 1}));
  EXPECT_EQ(Array(ArrayKind::kTriangle, outside, part), ArrayResult::kRead);
  EXPECT_EQ(Corners(part), (std::vector<std::uint32_t>{0, 1, 2}));
  ExpectRow("object - triangle indices out of range in made");
}

TEST_F(ReadersTest, ParticlesTakeFourComponents) {
  const std::vector<float> values = RandomFloats(4 * 5 * 3);
  SaveTiff(folder / "p.tif", 5, 3, 4, values);
  Part part;
  EXPECT_EQ(Array(ArrayKind::kParticle, "p.tif", part), ArrayResult::kRead);
  ASSERT_EQ(part.particles.size(), 15U);
  for (std::uint32_t i = 0; i < 15; ++i) {
    EXPECT_EQ(part.particles[i], i);
    EXPECT_EQ(part.positions[i], (Vec3{values[4 * i], values[4 * i + 1], values[4 * i + 2]}));
    EXPECT_EQ(part.scalarSets[0].values.at(i), values[4 * i + 3]);
  }

  // Intended: three at a time, even if pixels have four.
  Part triples;
  // The first row of a buffer is the bottom of its picture.
  const ImageBuffer image =
      Picture(2, 2, 4, std::vector<float>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
  EXPECT_EQ(Array(ArrayKind::kPosition, image, triples), ArrayResult::kRead);
  EXPECT_EQ(triples.positions,
            (std::vector<Vec3>{{8, 9, 10}, {11, 12, 13}, {14, 15, 0}, {1, 2, 3}, {4, 5, 6}}));

  Part none;
  const ImageBuffer three = Picture(2, 2, 3, std::vector<float>(12));
  EXPECT_EQ(Array(ArrayKind::kParticle, three, none), ArrayResult::kUnfit);
  ExpectRow("object - particles need four components in made");
  EXPECT_TRUE(none.positions.empty() && none.particles.empty() && none.scalarSets[0].values.empty());
}

TEST_F(ReadersTest, PicturesThatHoldNoArray) {
  Part part;
  EXPECT_EQ(Array(ArrayKind::kPosition, "", part), ArrayResult::kNothing);
  EXPECT_EQ(rows, "");
  EXPECT_EQ(Array(ArrayKind::kPosition, "none.pfm", part), ArrayResult::kNotLoaded);
  EXPECT_TRUE(rows.starts_with("error :( \timage - none.pfm\tcannot be found\n")) << rows;
  EXPECT_EQ(missingFiles, 1);
  Save(folder / "a.png", Picture(2, 2, 3, std::vector<float>(12, 0.5f)));
  EXPECT_EQ(Array(ArrayKind::kPosition, "a.png", part), ArrayResult::kUnfit);
  ExpectRow("object - no 32-bit floats in a.png");
  ImageBuffer lying = Picture(4, 4, 3, std::vector<float>(48));
  lying.height = 5;
  EXPECT_EQ(Array(ArrayKind::kPosition, lying, part), ArrayResult::kUnfit);
  EXPECT_TRUE(part.positions.empty());
}

}  // namespace
}  // namespace zp
