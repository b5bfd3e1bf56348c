// The OBJ rules, the records before a tree, and what the console says about both.

#include "geometry/geometry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <filesystem>
#include <fstream>
#include <random>

#include "accel/accel.h"
#include "core/console.h"
#include "shading/shading.h"

namespace zp {
namespace {

const std::string kRule = std::string(80, '_') + "\n\n";
const std::string kDegenerate = "warning :( \tobject - there are degenerated quadrangles\n";
const std::string kOutOfRange = "warning :( \tobject - face index out of range\n";
const std::string kPolygon =
    "warning :( \tobject - please triangulate/quadrangulate the input model(s)\n" + kRule;

const std::string kSquare = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";

// Tables and a folder of their own for each test.
class GeometryTest : public testing::Test {
 protected:
  void SetUp() override {
    shaders.clear();
    objectTable.clear();
    AddUndefinedShader();
    folder_ = std::filesystem::temp_directory_path() / ("geometry_test_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder_);
  }
  void TearDown() override {
    std::filesystem::remove_all(folder_);
    shaders.clear();
    objectTable.clear();
  }

  // Reads the text through a file; the rows it printed are in `rows`.
  Part Read(const std::string& text) {
    const std::string path = (folder_ / "model.obj").string();
    std::ofstream(path, std::ios::binary) << text;
    Part part;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(ReadObjFile(path, part));
    rows = testing::internal::GetCapturedStdout();
    return part;
  }
  std::string Prepare(Part& part, const Object& object = {}) {
    testing::internal::CaptureStdout();
    PreparePart(part, object);
    return testing::internal::GetCapturedStdout();
  }

  std::filesystem::path folder_;
  std::string rows;
};

// The corners of a triangle as positions.
std::array<Vec3, 3> Corners(const Part& part, std::size_t i) {
  const auto& v = part.triangles.at(i).vertex;
  return {part.positions.at(v[0]), part.positions.at(v[1]), part.positions.at(v[2])};
}

void ExpectOneLength(const Part& part) {
  EXPECT_EQ(part.uvSets.at(0).values.size(), part.positions.size());
  EXPECT_EQ(part.normals.size(), part.positions.size());
  EXPECT_EQ(part.tangents.size(), part.positions.size());
}

TEST_F(GeometryTest, RectanglesStayTetragonsAndOthersSplit) {
  const Part cube = Read(
      "v -1 -1 -1\nv 1 -1 -1\nv 1 1 -1\nv -1 1 -1\nv -1 -1 1\nv 1 -1 1\nv 1 1 1\nv -1 1 1\n"
      "f 4 3 2 1\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\n");
  EXPECT_EQ(cube.tetragons.size(), 6U);
  EXPECT_EQ(cube.triangles.size(), 0U);
  EXPECT_EQ(cube.positions.size(), 8U);
  ExpectOneLength(cube);
  EXPECT_TRUE(IsZero(cube.normals[0]));
  EXPECT_EQ(rows, "");

  struct Case {
    const char* fourth;
    bool isRectangle;
  };
  for (const Case& c : {Case{"0 1 0", true}, Case{"0 1.00001 0", false}, Case{"0 1 0.01", false},
                        Case{"0.00001 1 0", false}, Case{"0.2 0.2 0", false}}) {
    const Part part = Read(std::string("v 0 0 0\nv 1 0 0\nv 1 1 0\nv ") + c.fourth + "\nf 1 2 3 4\n");
    EXPECT_EQ(part.tetragons.size(), c.isRectangle ? 1U : 0U) << c.fourth;
    EXPECT_EQ(part.triangles.size(), c.isRectangle ? 0U : 2U) << c.fourth;
    if (c.isRectangle) continue;
    EXPECT_EQ(Corners(part, 0)[2], (Vec3{1, 1, 0}));
    EXPECT_EQ(Corners(part, 1)[0], (Vec3{1, 1, 0}));  // the diagonal runs from the first corner to the third
    EXPECT_EQ(Corners(part, 1)[2], (Vec3{0, 0, 0}));
  }
}

TEST_F(GeometryTest, DegenerateQuadranglesKeepThreeCorners) {
  struct Case {
    const char* face;
    Vec3 kept[3];
  };
  const Vec3 a = {0, 0, 0}, b = {1, 0, 0}, c = {1, 1, 0};
  for (const Case& test :
       {Case{"f 1 1 2 3\n", {a, b, c}}, Case{"f 1 2 1 3\n", {a, b, c}}, Case{"f 1 2 3 1\n", {a, b, c}},
        Case{"f 1 2 2 3\n", {a, b, c}}, Case{"f 1 2 3 2\n", {a, b, c}}, Case{"f 1 2 3 3\n", {a, b, c}}}) {
    const Part part = Read(kSquare + test.face + test.face);
    EXPECT_EQ(rows, kDegenerate) << test.face;  // once for two of them
    ASSERT_EQ(part.triangles.size(), 2U) << test.face;
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(Corners(part, 0)[i], test.kept[i]) << test.face;
  }
  // Of several matches the last decides, and corners that fall together leave nothing.
  EXPECT_EQ(Read(kSquare + "f 1 1 2 2\n").triangles.size(), 0U);
  EXPECT_EQ(Read(kSquare + "f 1 1 1 2\n").triangles.size(), 0U);
}

TEST_F(GeometryTest, NegativeIndicesCountBackFromWhatWasRead) {
  const Part part = Read(
      "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.25 0.5\nvn 0 0 1\nf -3/-1/-1 -2/-1/-1 -1/-1/-1\n"
      "v 5 5 5\nf -1 -2 -3\n");
  ASSERT_EQ(part.triangles.size(), 2U);
  EXPECT_EQ(Corners(part, 0)[0], (Vec3{0, 0, 0}));
  EXPECT_EQ(Corners(part, 1)[0], (Vec3{5, 5, 5}));
  EXPECT_EQ(Corners(part, 1)[2], (Vec3{1, 0, 0}));
  EXPECT_EQ(part.uvSets[0].values[0], (Vec2{0.25f, 0.5f}));
  EXPECT_EQ(part.normals[0], (PackedVector{0, 0, 127}));
}

TEST_F(GeometryTest, NormalsFlipOnlyWhenAllLookAway) {
  const std::string points = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 -1\nvn 0 0 1\n";
  for (const auto& normal : Read(points + "f 1//1 2//1 3//1\n").normals) EXPECT_EQ(normal.z, 127);
  const Part mixed = Read(points + "f 1//1 2//1 3//2\n");
  EXPECT_EQ(mixed.normals[0].z, -127);
  EXPECT_EQ(mixed.normals[2].z, 127);
  // A missing normal looks nowhere; so does one out of range.
  for (const char* face : {"f 1//1 2//1 3\n", "f 1//1 2//1 3//9\n"}) {
    const Part part = Read(points + face);
    EXPECT_EQ(part.normals[0].z, -127);
    EXPECT_TRUE(IsZero(part.normals[2]));
    EXPECT_EQ(rows, "");
  }
  const Part tetragon = Read(kSquare + "vn 0 0 -1\nf 1//1 2//1 3//1 4//1\n");
  ASSERT_EQ(tetragon.tetragons.size(), 1U);
  EXPECT_EQ(tetragon.normals[3].z, 127);
}

TEST_F(GeometryTest, SmoothingOffDropsNormals) {
  const Part part = Read(
      "v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\n"
      "s off\nf 1//1 2//1 3//1\ns 1\nf 1//1 2//1 3//1\n");
  ASSERT_EQ(part.triangles.size(), 2U);
  EXPECT_EQ(part.positions.size(), 6U);  // the same corners with and without a normal are no one vertex
  EXPECT_TRUE(IsZero(part.normals[part.triangles[0].vertex[0]]));
  EXPECT_EQ(part.normals[part.triangles[1].vertex[0]].z, 127);
}

TEST_F(GeometryTest, EqualCornersMergeAcrossLoads) {
  const std::string text =
      "v 0 0 0\nv 1 0 0\nv 0 1 0\nv -0 0 0\nvt 0 0\nvt 1 0\n"
      "f 1/1 2/1 3/1\nf 4/1 2/1 3/1\nf 1/2 3/1 2/1\nf 1/7 3/1 2/1\n";
  Part part = Read(text);
  EXPECT_EQ(part.triangles.size(), 4U);
  EXPECT_EQ(part.positions.size(), 4U);  // a second uv makes a second vertex, a zero's sign and uv 7 do not
  EXPECT_EQ(part.triangles[0].vertex[0], part.triangles[1].vertex[0]);
  EXPECT_EQ(part.triangles[0].vertex[0], part.triangles[3].vertex[0]);
  EXPECT_NE(part.triangles[0].vertex[0], part.triangles[2].vertex[0]);
  ReadObj(text, part);
  EXPECT_EQ(part.triangles.size(), 8U);
  EXPECT_EQ(part.positions.size(), 4U);
}

// Against a quadratic search, with enough vertices for the table to grow several times.
TEST_F(GeometryTest, MergingIsThatOfAPlainSearch) {
  std::mt19937 random(1);
  std::string text;
  std::vector<Vec3> raw;
  for (int i = 0; i < 6000; ++i) {
    const int x = static_cast<int>(random() % 16), y = static_cast<int>(random() % 16);
    const int z = static_cast<int>(random() % 16);
    raw.push_back({static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)});
    text += "v " + std::to_string(x) + " " + std::to_string(y) + " " + std::to_string(z) + "\n";
  }
  std::vector<Vec3> merged;
  std::vector<std::uint32_t> expected;
  for (std::size_t i = 0; i < raw.size(); i += 3) {
    text += "f " + std::to_string(i + 1) + " " + std::to_string(i + 2) + " " + std::to_string(i + 3) + "\n";
    if (raw[i] == raw[i + 1] || raw[i + 1] == raw[i + 2] || raw[i] == raw[i + 2]) continue;
    for (std::size_t k = i; k < i + 3; ++k) {
      const auto found = std::find(merged.begin(), merged.end(), raw[k]);
      expected.push_back(static_cast<std::uint32_t>(found - merged.begin()));
      if (found == merged.end()) merged.push_back(raw[k]);
    }
  }
  const Part part = Read(text);
  EXPECT_EQ(part.positions, merged);
  std::vector<std::uint32_t> actual;
  for (const Triangle& t : part.triangles) actual.insert(actual.end(), t.vertex, t.vertex + 3);
  EXPECT_EQ(actual, expected);
}

TEST_F(GeometryTest, UseMaterialNamesShaders) {
  const Part part = Read(
      "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nusemtl red\r\nf 1 2 3\n usemtl blue\nusemtl\nf 1 2 3\n"
      "usemtl green\nf 1 2 3\nusemtl red\nf 1 2 3\n");
  ASSERT_EQ(part.triangles.size(), 5U);
  const std::int32_t red = FindShader("red"), green = FindShader("green");
  EXPECT_EQ(FindShader("blue"), kNone);  // an indented name is none
  EXPECT_GT(red, 0);
  const std::int32_t expected[] = {0, red, red, green, red};
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(part.triangles[i].shader, expected[i]);
}

TEST_F(GeometryTest, DroppedFacesAreToldOncePerLoad) {
  const std::string pentagon = "v 2 2 2\nf 1 2 3 4 5\n";
  EXPECT_TRUE(Read(kSquare + pentagon + pentagon + "f 1 2\nf\n").triangles.empty());
  EXPECT_EQ(rows, kPolygon);
  for (const char* face : {"f 1 2 9\n", "f 1 2 -9\n", "f 1 2 3 99\n", "f 1 2 99999999999999999999\n"}) {
    const Part part = Read(kSquare + face + face + "f 1 2 3\n");
    EXPECT_EQ(part.triangles.size(), 1U) << face;
    EXPECT_TRUE(part.tetragons.empty());
    EXPECT_EQ(rows, kOutOfRange) << face;
  }
  Read(kSquare + "f 1 2 9\n" + pentagon + "f 1 2 3 3\nf 1 2 9\n");
  EXPECT_EQ(rows, kOutOfRange + kPolygon + kDegenerate);
  // Points may follow the faces that use them. Faces without extent go without a word.
  EXPECT_EQ(Read("f 1 2 3 4\n" + kSquare).tetragons.size(), 1U);
  EXPECT_TRUE(Read("v 0 0 0\nv 0 0 0\nv 1 1 1\nf 1 2 3\n").triangles.empty());
  EXPECT_EQ(rows, "");
}

TEST_F(GeometryTest, LineRules) {
  const std::string longLine(4096, 'x'), longest = "v 7 8 9 #" + std::string(4095 - 9, ' ');
  const Part part = Read("#v 9 9 9\r\n\tv\t0 0 0\r\n  v 1 0 0 4 5 \r\n" + longLine + "\nv 1 1 1" +
                         std::string(4096, ' ') + "\n" + longest + "\n\n\nvx 1 2 3\ng a b\nf 1 2 3 # 2 1");
  ASSERT_EQ(part.triangles.size(), 1U);
  EXPECT_EQ(Corners(part, 0)[1], (Vec3{1, 0, 0}));
  EXPECT_EQ(Corners(part, 0)[2], (Vec3{7, 8, 9}));
  // Lines that reach over the blocks of a read, and a long one that fills several.
  std::string text = kSquare + "v 0 0 5" + std::string(3 << 20, '0') + "\n";
  while (text.size() < (5U << 20U)) text += "f 1 2 3 4 " + std::string(text.size() % 97, ' ') + "\n";
  const auto faces = std::count(text.begin(), text.end(), 'f');
  EXPECT_EQ(Read(text).tetragons.size(), static_cast<std::size_t>(faces));
  EXPECT_EQ(Read("").positions.size(), 0U);
}

TEST_F(GeometryTest, NumbersAreTheNearestFloats) {
  std::mt19937_64 random(7);
  const char* fixed[] = {"0",
                         "-0",
                         "+1.5",
                         ".5",
                         "5.",
                         "1e3",
                         "-2.5E-3",
                         "1e-40",
                         "3.4e38",
                         "1e400",
                         "-1e-400",
                         "inf",
                         "1e+05",
                         "0.1e22",
                         "1e22",
                         "123456789012345678901234567890",
                         "18446744073709551616",
                         "0.000000000000000000000000000001",
                         "9007199254740993",
                         "16777217"};
  std::vector<std::string> texts(std::begin(fixed), std::end(fixed));
  for (int i = 0; i < 2000; ++i) {
    char text[64];
    const auto bits = static_cast<std::uint32_t>(random());
    const auto value = static_cast<double>(std::bit_cast<float>(bits));
    if (!std::isfinite(value)) continue;
    std::snprintf(text, sizeof text, i % 2 ? "%.9g" : "%.17g", value);
    texts.push_back(text);
  }
  while (texts.size() % 3 != 0) texts.push_back("1");
  std::string file;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    file += "v " + texts[i] + " " + std::to_string(i) + " 2\n";
    if (i % 3 == 2) file += "f -3 -2 -1\n";
  }
  const Part part = Read(file);
  ASSERT_EQ(part.positions.size(), texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const auto expected = static_cast<float>(std::strtod(texts[i].c_str(), nullptr));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(part.positions[i].x), std::bit_cast<std::uint32_t>(expected))
        << texts[i];
  }
}

TEST_F(GeometryTest, MissingFileIsAnErrorRow) {
  Part part;
  for (const std::string& path : {(folder_ / "none.obj").string(), folder_.string()}) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(ReadObjFile(path, part));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error :( \tobject - cannot open " + path + "\n\n" + kRule);
  }
  EXPECT_TRUE(part.positions.empty());
}

TEST_F(GeometryTest, Packing) {
  EXPECT_EQ(Pack({0, 0, 0}), PackedVector{});
  EXPECT_EQ(Pack({1, 0, 0}), (PackedVector{127, 0, 0}));
  EXPECT_EQ(Pack({0, -3, 0}), (PackedVector{0, -127, 0}));
  EXPECT_EQ(Pack({1, 1, 1}), (PackedVector{73, 73, 73}));    // 73.9, towards zero
  EXPECT_EQ(Pack({-1, 1, 0}), (PackedVector{-90, 90, 0}));   // 90.5
  EXPECT_EQ(Pack({5e-6f, 0, 0}), (PackedVector{64, 0, 0}));  // scaled by 1e5, not to unit length
  EXPECT_EQ(Pack({std::nanf(""), 1, 0}), PackedVector{});
}

TEST_F(GeometryTest, InverseTimesMatrixIsIdentity) {
  std::mt19937 random(3);
  std::uniform_real_distribution<float> uniform(-2, 2);
  for (int round = 0; round < 200; ++round) {
    Mat4 matrix, inverse;
    for (auto& row : matrix.m)
      for (float& entry : row) entry = uniform(random);
    if (round == 0) matrix = {{{0, 1, 0, 0}, {1, 0, 0, 0}, {0, 0, 0, 1}, {0, 0, 1, 0}}};
    ASSERT_TRUE(Invert(matrix, inverse));
    float largest = 1;
    for (const auto& row : inverse.m)
      for (const float entry : row) largest = std::max(largest, std::fabs(entry));
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) {
        float sum = 0;
        for (int k = 0; k < 4; ++k) sum += inverse.m[i][k] * matrix.m[k][j];
        EXPECT_NEAR(sum, i == j ? 1.0f : 0.0f, 2e-6f * largest);
      }
  }
  const Mat4 before;
  Mat4 untouched;
  EXPECT_FALSE(Invert({{{1, 2, 3, 4}, {2, 4, 6, 8}, {0, 0, 1, 0}, {0, 0, 0, 1}}}, untouched));
  EXPECT_FALSE(Invert({{{std::nanf(""), 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}}, untouched));
  EXPECT_EQ(untouched, before);
}

TEST_F(GeometryTest, InstancesGetBoxAndNormalMatrix) {
  Instance instance;
  instance.matrix = {{{0, -2, 0, 10}, {2, 0, 0, 20}, {0, 0, 4, 30}, {0, 0, 0, 1}}};  // quarter turn, scaled
  FinishInstance(instance, {{1, 2, 3}, {4, 5, 6}});
  EXPECT_EQ(instance.bounds, (Box{{0, 22, 42}, {6, 28, 54}}));
  const Vec3 along = TransformDirection(instance.matrix, {1, 0, 1});
  const Vec3 normal = TransformDirection(instance.normalMatrix, {1, 0, -1});
  EXPECT_NEAR(Dot(along, normal), 0, 1e-6f);  // normals stay perpendicular
  instance.matrix.m[3][3] = 2;                // a projective matrix divides
  FinishInstance(instance, {{1, 2, 3}, {4, 5, 6}});
  EXPECT_EQ(instance.bounds, (Box{{0, 11, 21}, {3, 14, 27}}));

  FinishInstance(instance, {});
  EXPECT_TRUE(IsEmpty(instance.bounds));
  instance.matrix = {{{0, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}};
  testing::internal::CaptureStdout();
  FinishInstance(instance, {{1, 2, 3}, {4, 5, 6}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "error :( \tobject - an instance matrix has no inverse\n");
  EXPECT_TRUE(IsEmpty(instance.bounds));
}

TEST_F(GeometryTest, ValidationRows) {
  const std::string mixed =
      "error :( \tobject - mixed types (ex. cylinders and triangles in the same group) \n" + kRule;
  Part part;
  part.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  part.particles = {3};
  part.cylinders = {0, 1};
  part.triangles = {{{0, 1, 2}, 0}};
  EXPECT_EQ(Prepare(part), mixed + mixed + mixed);
  part.particles.clear();
  part.cylinders.clear();
  part.normals.resize(1);
  part.scalarSets[0].values.assign(50, 1.0f);
  EXPECT_EQ(Prepare(part), "error :( \tobject - different size of per vertex data array\n");
  EXPECT_EQ(part.normals.size(), part.positions.size());  // no look-up by vertex can leave it
  EXPECT_EQ(part.scalarSets[0].values.size(), part.positions.size());
  EXPECT_EQ(Prepare(part), "");
}

TEST_F(GeometryTest, UnusablePrimitivesAreDropped) {
  const float infinite = std::numeric_limits<float>::infinity();
  Part part;
  part.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {std::nanf(""), 0, 0}, {0, infinite, 0}};
  part.triangles = {{{0, 1, 2}, 0}, {{0, 1, 3}, 0}, {{2, 1, 0}, 0}, {{0, 1, 5}, 0}};
  part.tetragons = {{{0, 1, 2, 4}, 0}, {{0, 1, 2, 2}, 0}};
  EXPECT_EQ(Prepare(part),
            "warning :( \tobject - primitives with an index out of range are dropped\n"
            "warning :( \tobject - primitives with non-finite positions are dropped\n");
  ASSERT_EQ(part.triangles.size(), 2U);
  EXPECT_EQ(Corners(part, 1)[0], (Vec3{0, 1, 0}));
  ASSERT_EQ(part.tetragons.size(), 1U);

  Part strands;
  strands.positions = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
  strands.cylinders = {2, 0, 0xFFFFFFFFU, 1};
  strands.primitiveShaders = {5, 6, 7, 8};
  shaders.resize(9);
  for (std::size_t i = 0; i < 9; ++i) shaders[i].name = std::to_string(i);
  Prepare(strands);
  EXPECT_EQ(strands.cylinders, (std::vector<std::uint32_t>{0, 1}));
  EXPECT_EQ(strands.primitiveShaders, (std::vector<std::int32_t>{6, 8}));
}

TEST_F(GeometryTest, UndefinedShadersTakeThePartsAndFacesFlip) {
  const std::int32_t paint = FindOrCreateShader("paint"), flipped = FindOrCreateShader("flipped");
  shaders[static_cast<std::size_t>(flipped)].geometry.flipFace = true;
  Part part;
  part.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
  part.shader = paint;
  part.triangles = {{{0, 1, 2}, 0}, {{0, 1, 2}, flipped}, {{0, 1, 2}, 77}, {{0, 1, 2}, -5}};
  part.tetragons = {{{0, 1, 2, 3}, flipped}};
  part.vectorSets = {{"motion", {}}};
  EXPECT_EQ(Prepare(part), "");
  for (const std::size_t i : {0U, 2U, 3U}) EXPECT_EQ(part.triangles[i].shader, paint);
  EXPECT_EQ(Corners(part, 0)[0], (Vec3{0, 0, 0}));
  EXPECT_EQ(part.triangles[1].shader, flipped);
  EXPECT_EQ(Corners(part, 1)[0], (Vec3{1, 0, 0}));
  EXPECT_EQ(Corners(part, 1)[1], (Vec3{0, 0, 0}));
  EXPECT_EQ(part.positions.at(part.tetragons[0].vertex[0]), (Vec3{1, 1, 0}));
  EXPECT_EQ(part.positions.at(part.tetragons[0].vertex[2]), (Vec3{0, 0, 0}));
  EXPECT_TRUE(part.motion);

  // The object's own shader reaches a Part only through the name that hosts may give.
  Object object;
  object.shader = paint;
  Part plain, named;
  named.materialName = "undefined";
  Prepare(plain, object);
  Prepare(named, object);
  EXPECT_EQ(plain.shader, 0);
  EXPECT_EQ(named.shader, paint);
}

TEST_F(GeometryTest, BoxesAndAreas) {
  Object object;
  Part& part = object.parts.emplace_back();
  part.positions = {{0, 0, 0}, {3, 0, 0}, {3, 4, 0}, {0, 4, 0}};
  part.scalarSets[0].values = {1, 0.5f, 0, 2};
  part.triangles = {{{0, 1, 2}, 0}};
  part.tetragons = {{{0, 1, 2, 3}, 0}};
  part.particles = {3};
  EXPECT_FLOAT_EQ(TriangleArea(part, 0), 6);
  EXPECT_FLOAT_EQ(TetragonArea(part, 0), 12);
  EXPECT_EQ(ParticleBox(part, 0), (Box{{-2, 2, -2}, {2, 6, 2}}));
  Build(object);
  Update(object, true, 1);
  EXPECT_EQ(object.bounds, (Box{{-2, 0, -2}, {3, 6, 2}}));
  EXPECT_EQ(PrimitiveBox(object, {0, kKindTetragon, 0}), (Box{{0, 0, 0}, {3, 4, 0}}));

  // The curve passes through its ends, along its unit tangents, and stays in its box.
  part.cylinders = {0};
  part.tangents = {{0, 127, 0}, {0, -127, 0}, {}, {}};
  EXPECT_EQ(CurvePoint(part, 0, 0), part.positions[0]);
  EXPECT_EQ(CurvePoint(part, 0, 1), part.positions[1]);
  const Vec3 slope = (CurvePoint(part, 0, 1e-3f) - CurvePoint(part, 0, 0)) / 1e-3f;
  EXPECT_NEAR(slope.y, 1, 5e-3f);
  EXPECT_NEAR(slope.x, 0, 1e-2f);
  const Box box = CylinderBox(part, 0);
  EXPECT_FLOAT_EQ(box.min.x, -1);
  EXPECT_FLOAT_EQ(box.max.x, 4);
  EXPECT_FLOAT_EQ(box.max.y, CurvePoint(part, 0, 0.5f).y + 1);  // the first vertex's radius, not the second's
}

TEST_F(GeometryTest, EmissionLists) {
  const auto lamp = static_cast<std::size_t>(FindOrCreateShader("lamp"));
  shaders[lamp].frontEmissive = shaders[lamp].backEmissive = shaders[lamp].backVirtualLight = true;
  const auto shader = static_cast<std::int32_t>(lamp);
  objectTable.resize(2);
  Part part;
  part.positions = {{0, 0, 0}, {3, 0, 0}, {3, 4, 0}, {0, 4, 0}};
  part.triangles = {{{0, 1, 2}, 0}, {{0, 1, 2}, shader}};
  part.tetragons = {{{0, 1, 2, 3}, shader}};
  objectTable[0].parts = {part};
  BuildEmissionLists(objectTable[0]);
  const EmissionList& list = objectTable[0].emitters;
  ASSERT_EQ(list.records.size(), 4U);
  const int sides[] = {1, 0, 1, 0};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(list.records[i].side, sides[i]);
    EXPECT_EQ(list.records[i].kind, i < 2 ? kKindTriangle : kKindTetragon);
    EXPECT_FLOAT_EQ(list.records[i].area, i < 2 ? 6.0f : 12.0f);
  }
  EXPECT_EQ(list.records[0].index, 1U);
  EXPECT_FLOAT_EQ(list.area, 36);
  EXPECT_FLOAT_EQ(objectTable[0].virtualLights.area, 18);
  EXPECT_EQ(list.distribution.cumulative.size(), 5U);

  // An Instance counts once for each Part around it, and its Object's area stands for it.
  objectTable[1].parts.resize(2);
  objectTable[1].instances.resize(2);
  objectTable[1].instances[0].object = 0;  // the second refers to nothing
  BuildEmissionLists(objectTable[1]);
  EXPECT_EQ(objectTable[1].emitters.records.size(), 4U);
  EXPECT_FLOAT_EQ(objectTable[1].emitters.area, 72);
  EXPECT_FLOAT_EQ(objectTable[1].virtualLights.area, 36);
  EXPECT_EQ(objectTable[1].emitters.records[0].kind, kKindInstance);
  objectTable[1].parts.clear();
  BuildEmissionLists(objectTable[1]);
  EXPECT_TRUE(objectTable[1].emitters.records.empty());
  EXPECT_EQ(objectTable[1].emitters.area, 0);
}

TEST_F(GeometryTest, ReportCountsElementsAndBytes) {
  Object object;
  Part& part = object.parts.emplace_back();
  part.positions.resize(1048576);
  part.vectorSets = {{"motion", std::vector<Vec3>(2)}};
  part.triangles.resize(3);
  object.bounds = {{-1, 0, 2}, {1, 4, 8}};
  testing::internal::CaptureStdout();
  PrintObjectReport(object);
  const std::string report = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(
      report.starts_with("positions          1048578          12.0000[ M bytes ]\n"
                         "uv coords                0           0.0000[ M bytes ]\n"))
      << report;
  EXPECT_TRUE(
      report.ends_with(kRule + "bbox size             2.0000            4.0000            6.0000 [ m ]\n" +
                       "bbox min             -1.0000            0.0000            2.0000 [ n/a ]\n" +
                       "bbox max              1.0000            4.0000            8.0000 [ n/a ]\n" +
                       "bbox center           0.0000            2.0000            5.0000 [ n/a ]\n" + kRule))
      << report;
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 10 + 2 + 4 + 2);
}

}  // namespace
}  // namespace zp
