// The OBJ rules, the records before a tree, and what the console says about both.

#include "geometry/geometry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <thread>

#include "accel/accel.h"
#include "core/console.h"
#include "geometry/equal_positions.h"
#include "geometry/validate.h"
#include "shading/shading.h"
#include "surroundings.h"

namespace zp {
namespace {

const std::string kRule = std::string(80, '_') + "\n\n";
const std::string kDegenerate = "warning :( \tobject - there are degenerated quadrangles\n";
const std::string kOutOfRange = "warning :( \tobject - face index out of range\n";
const std::string kPolygon =
    "warning :( \tobject - please triangulate/quadrangulate the input model(s)\n" + kRule;

const std::string kTriangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
const std::string kSquare = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";

// Tables and a folder of their own for each test.
class GeometryTest : public testing::Test {
 protected:
  void SetUp() override {
    shaders.clear();
    objectTable.clear();
    AddUndefinedShader();
  }
  void TearDown() override {
    shaders.clear();
    objectTable.clear();
  }

  // Reads the text through a file; the rows it printed are in `rows`.
  Part Read(const std::string& text) {
    const std::string path = folder_ / "model.obj";
    WriteFile(path, text);
    Part part;
    rows = Printed([&] { EXPECT_TRUE(ReadObjFile(path, part)); });
    return part;
  }
  static std::string Prepare(Part& part, const Object& object = {}) {
    std::string printed = Printed([&] { PreparePart(part, object); });
    EXPECT_EQ(ValidatePart(part), "");
    return printed;
  }

  const TemporaryFolder folder_;
  std::string rows;
};

using Points = std::vector<Vec3>;
const Points kRectangle = {{0, 0, 0}, {3, 0, 0}, {3, 4, 0}, {0, 4, 0}};

Points Corners(const Part& part, std::size_t i) {
  const auto& v = part.triangles.at(i).vertex;
  return {part.positions.at(v[0]), part.positions.at(v[1]), part.positions.at(v[2])};
}

TEST_F(GeometryTest, RectanglesStayTetragonsAndOthersSplit) {
  for (const std::string fourth : {"0 1 0", "0 1.00001 0", "0 1 0.01", "0.00001 1 0", "0.2 0.2 0"}) {
    const Part part = Read("v 0 0 0\nv 1 0 0\nv 1 1 0\nv " + fourth + "\nf 1 2 3 4\n");
    const bool isRectangle = fourth == "0 1 0";
    EXPECT_EQ(part.tetragons.size(), isRectangle ? 1U : 0U) << fourth;
    ASSERT_EQ(part.triangles.size(), isRectangle ? 0U : 2U) << fourth;
    EXPECT_EQ(rows, "");
    EXPECT_EQ(part.positions.size(), 4U);
    EXPECT_EQ(part.uvSets.at(0).values.size(), 4U);
    EXPECT_EQ(part.normals, std::vector<PackedVector>(4));
    EXPECT_EQ(part.tangents.size(), 4U);
    if (isRectangle) continue;  // else the diagonal runs from the first corner to the third
    EXPECT_EQ(Corners(part, 0), (Points{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}));
    EXPECT_EQ(Corners(part, 1), (Points{{1, 1, 0}, part.positions[3], {0, 0, 0}}));
  }
}

TEST_F(GeometryTest, DegenerateQuadranglesKeepThreeCorners) {
  for (const std::string face : {"1 1 2 3", "1 2 1 3", "1 2 3 1", "1 2 2 3", "1 2 3 2", "1 2 3 3"}) {
    const Part part = Read(kSquare + "f " + face + "\nf " + face + "\n");
    EXPECT_EQ(rows, kDegenerate) << face;  // once for two of them
    ASSERT_EQ(part.triangles.size(), 2U) << face;
    EXPECT_EQ(Corners(part, 0), (Points{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}})) << face;
  }
  // Of several matches the last decides, and corners that fall together leave nothing.
  for (const char* face : {"f 1 1 2 2\n", "f 1 1 1 2\n"})
    EXPECT_EQ(Read(kSquare + face).triangles.size(), 0U);
}

TEST_F(GeometryTest, NegativeIndicesCountBackFromWhatWasRead) {
  const Part part =
      Read(kTriangle + "vt 0.25 0.5\nvn 0 0 1\nf -3/-1/-1 -2/-1/-1 -1/-1/-1\nv 5 5 5\nf -1 -2 -3\n");
  ASSERT_EQ(part.triangles.size(), 2U);
  EXPECT_EQ(Corners(part, 0)[0], (Vec3{0, 0, 0}));
  EXPECT_EQ(Corners(part, 1), (Points{{5, 5, 5}, {0, 1, 0}, {1, 0, 0}}));
  EXPECT_EQ(part.uvSets[0].values[0], (Vec2{0.25f, 0.5f}));
  EXPECT_EQ(part.normals[0], (PackedVector{0, 0, 127}));
}

// Normals flip only when all look away. A missing one looks nowhere; so does one out of range.
TEST_F(GeometryTest, NormalsOfFaces) {
  struct Case {
    const char* face;
    std::vector<int> z;  // of each vertex that is made
  };
  for (const Case& c : {
           Case{"f 1//1 2//1 3//1\n", {127, 127, 127}},
           Case{"f 1//1 2//1 3//2\n", {-127, -127, 127}},
           Case{"f 1//1 2//1 3\n", {-127, -127, 0}},
           Case{"f 1//1 2//1 3//9\n", {-127, -127, 0}},
           Case{"f 1//1 2//1 3//1 4//1\n", {127, 127, 127, 127}},
           // The same corners with and without a normal are no one vertex.
           Case{"s off\nf 1//2 2//2 3//2\ns 1\nf 1//2 2//2 3//2\n", {0, 0, 0, 127, 127, 127}},
       }) {
    const Part part = Read(kSquare + "vn 0 0 -1\nvn 0 0 1\n" + c.face);
    std::vector<int> z;
    for (PackedVector normal : part.normals) z.push_back(normal.z);
    EXPECT_EQ(z, c.z) << c.face;
    EXPECT_EQ(rows, "");
  }
}

// A second uv makes a second vertex, a zero's sign and uv 7 do not.
TEST_F(GeometryTest, EqualCornersMerge) {
  const Part part = Read(
      kTriangle + "v -0 0 0\nvt 0 0\nvt 1 0\nf 1/1 2/1 3/1\nf 4/1 2/1 3/1\nf 1/2 3/1 2/1\nf 1/7 3/1 2/1\n");
  std::vector<std::uint32_t> first;
  for (const Triangle& t : part.triangles) first.push_back(t.vertex[0]);
  EXPECT_EQ(first, (std::vector<std::uint32_t>{0, 0, 3, 0}));
  EXPECT_EQ(part.positions.size(), 4U);
}

// Against a quadratic search, with enough vertices for the table to grow several times.
TEST_F(GeometryTest, MergingIsThatOfAPlainSearchAcrossLoads) {
  std::mt19937 random(1);
  std::string text;
  Points raw, merged;
  for (int i = 0; i < 6000; ++i) {
    int place[3];
    for (int& coordinate : place) coordinate = static_cast<int>(random() % 16);
    const auto [x, y, z] = place;
    raw.push_back({static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)});
    text += "v " + std::to_string(x) + " " + std::to_string(y) + " " + std::to_string(z) + "\n";
    if (i % 3 == 2) text += "f -3 -2 -1\n";
  }
  std::vector<std::uint32_t> expected, actual;
  for (std::size_t i = 0; i < raw.size(); i += 3) {
    if (raw[i] == raw[i + 1] || raw[i + 1] == raw[i + 2] || raw[i] == raw[i + 2]) continue;
    for (std::size_t k = i; k < i + 3; ++k) {
      const auto found = std::find(merged.begin(), merged.end(), raw[k]);
      expected.push_back(static_cast<std::uint32_t>(found - merged.begin()));
      if (found == merged.end()) merged.push_back(raw[k]);
    }
  }
  Part part = Read(text);
  ReadObj(text, part);
  EXPECT_EQ(part.positions, merged);
  for (const Triangle& t : part.triangles) actual.insert(actual.end(), t.vertex, t.vertex + 3);
  ASSERT_EQ(actual.size(), 2 * expected.size());
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), actual.begin()));
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), actual.end() - std::ssize(expected)));
}

TEST_F(GeometryTest, UseMaterialNamesShaders) {
  const Part part = Read(kTriangle +
                         "f 1 2 3\nusemtl red\r\nf 1 2 3\n usemtl blue\nusemtl\nf 1 2 3\n"
                         "usemtl green\nf 1 2 3\nusemtl red\nf 1 2 3\n");
  const std::int32_t red = FindShader("red"), green = FindShader("green");
  EXPECT_EQ(FindShader("blue"), kNone);  // an indented name is none
  EXPECT_GT(red, 0);
  std::vector<std::int32_t> used;
  for (const Triangle& t : part.triangles) used.push_back(t.shader);
  EXPECT_EQ(used, (std::vector<std::int32_t>{0, red, red, green, red}));
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

// Where pieces of a text begin changes nothing, whatever lines before say of those behind; nor does a pipe.
TEST_F(GeometryTest, PiecesOfATextMeanWhatTheWholeDoes) {
  std::mt19937 random(3);
  const char* const lines[] = {"s off",
                               "s 1",
                               "usemtl a",
                               "usemtl b",
                               "vn 0 0 -1",
                               "vn 1 0 0",
                               "vt 0 1",
                               "vt -0 1",
                               "f 1 2 3 4 1 2",
                               "f -1/-1/-1 -2//-2 -3",
                               "f -3 1/1/1 -2 2//2",
                               "f 1 2 999"};
  std::string text = "\xEF\xBB\xBF";
  for (int i = 0; i < 2000; ++i) {
    if (i % 2 == 0)
      text += "v " + std::to_string(random() % 3) + ' ' + std::to_string(random() % 3) + " -0\n";
    text += std::string(lines[random() % std::size(lines)]) + '\n';
  }
  const Part whole = Read(text);
  ASSERT_GT(whole.triangles.size(), 200U);
  const auto expectWhole = [&](const Part& part) {
    EXPECT_EQ(part.positions, whole.positions);
    EXPECT_EQ(part.normals, whole.normals);
    EXPECT_EQ(part.uvSets[0].values, whole.uvSets[0].values);
    ASSERT_EQ(part.triangles.size(), whole.triangles.size());
    EXPECT_EQ(
        std::memcmp(part.triangles.data(), whole.triangles.data(), part.triangles.size() * sizeof(Triangle)),
        0);
  };
  for (const std::size_t bytes : {1, 7, 64, 5000}) {
    Part part;
    EXPECT_EQ(Printed([&] { ReadObj(text, part, bytes); }), rows);
    expectWhole(part);
  }
  std::string fresh = kSquare;  // each piece has vertices of its own
  for (int i = 0; i < 600; ++i) fresh += "vt " + std::to_string(i) + " 0\nf 1/-1 2/-1 3/-1\n";
  Part many;
  ReadObj(fresh, many, 1);
  EXPECT_EQ(many.positions.size(), 1800U);
  std::string hub = kSquare;  // of a fan; a search of all its texture coordinates would take minutes
  constexpr int kFaces = 200'000, kUvs = kFaces / 2;
  for (int i = 0; i < kFaces; ++i) hub += "vt 0 " + std::to_string(i % kUvs) + "\nf 1/-1 2/1 3/1\n";
  Part fan;
  ReadObj(hub, fan);
  ASSERT_EQ(fan.positions.size(), kUvs + 2U);
  for (int i = 0; i < kFaces; ++i)
    EXPECT_EQ(fan.uvSets[0].values[At(fan.triangles, i).vertex[0]], (Vec2{0, static_cast<float>(i % kUvs)}));
  const std::string pipe = folder_ / "pipe.obj";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] { WriteFile(pipe, text); });
  Part part;
  EXPECT_EQ(Printed([&] { ReadObjFile(pipe, part); }), rows);
  writer.join();
  expectWhole(part);
}

TEST_F(GeometryTest, EqualPositions) {
  constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
  const std::vector<Vec3> same(300'000, {1, -0.0f, 0}), none(300'000, {1, kNone, 0});
  const auto isOneGroup = [](const auto& first) {
    return std::all_of(first.begin(), first.end(), [](std::uint32_t v) { return v == 0; });
  };
  EXPECT_TRUE(isOneGroup(FirstEqual(same, false)));
  EXPECT_TRUE(isOneGroup(FirstEqual(none, true)));
  const auto alone = FirstEqual(none, false);  // a search for an equal one would take minutes
  for (std::uint32_t v = 0; v < alone.size(); ++v) ASSERT_EQ(alone[v], v);
}

TEST_F(GeometryTest, LineRules) {
  const std::string longLine(4096, 'x'), longest = "v 7 8 9 #" + std::string(4095 - 9, ' ');
  const Part part = Read("#v 9 9 9\r\n\tv\t0 0 0\r\n  v 1 0 0 4 5 \r\n" + longLine + "\nv 1 1 1" +
                         std::string(4096, ' ') + "\n" + longest + "\n\n\nvx 1 2 3\ng a b\nf 1 2 3 # 2 1");
  ASSERT_EQ(part.triangles.size(), 1U);
  EXPECT_EQ(Corners(part, 0), (Points{{0, 0, 0}, {1, 0, 0}, {7, 8, 9}}));
  // Lines that reach over the blocks of a read, and a long one that fills several.
  std::string text = kSquare + "v 0 0 5" + std::string(3 << 20, '0') + "\n";
  while (text.size() < (5U << 20U)) text += "f 1 2 3 4 " + std::string(text.size() % 97, ' ') + "\n";
  const auto faces = std::count(text.begin(), text.end(), 'f');
  EXPECT_EQ(Read(text).tetragons.size(), static_cast<std::size_t>(faces));
  EXPECT_EQ(Read("").positions.size(), 0U);
}

TEST_F(GeometryTest, NumbersAreTheNearestFloats) {
  std::istringstream fixed(
      "0 -0 +1.5 .5 5. 1e3 -2.5E-3 1e-40 3.4e38 1e400 -1e-400 inf 1e+05 0.1e22 1e22 9007199254740993 1 "
      "16777217 123456789012345678901234567890 18446744073709551616 0.000000000000000000000000000001 1x 5e "
      "e5 nan");
  std::vector<std::string> texts(std::istream_iterator<std::string>(fixed), {});
  std::mt19937_64 random(7);
  while (texts.size() < 2001) {
    char text[64];
    const auto value = static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(random())));
    if (!std::isfinite(value)) continue;
    std::snprintf(text, sizeof text, texts.size() % 2 ? "%.9g" : "%.17g", value);
    texts.push_back(text);
  }
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
  for (const std::string& path : {folder_ / "none.obj", folder_.path.string()})
    EXPECT_EQ(Printed([&] { EXPECT_FALSE(ReadObjFile(path, part)); }),
              "error :( \tobject - cannot open " + path + "\n\n" + kRule);
  EXPECT_TRUE(part.positions.empty());
}

TEST_F(GeometryTest, Packing) {
  EXPECT_EQ(Pack({0, 0, 0}), PackedVector{});
  EXPECT_EQ(Pack({0, -3, 0}), (PackedVector{0, -127, 0}));
  EXPECT_EQ(Pack({1, 1, 1}), (PackedVector{73, 73, 73}));    // 73.9, towards zero
  EXPECT_EQ(Pack({-1, 1, 0}), (PackedVector{-90, 90, 0}));   // 90.5
  EXPECT_EQ(Pack({5e-6f, 0, 0}), (PackedVector{64, 0, 0}));  // scaled by 1e5, not to unit length
  EXPECT_EQ(Pack({1e18f, 0, 0}), (PackedVector{127, 0, 0}));
  for (const Vec3 none : {Vec3{std::nanf(""), 1, 0}, {1e20f, 0, 0}, {3.4e38f, -3.4e38f, 0}})
    EXPECT_EQ(Pack(none), PackedVector{});
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
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) {
        float sum = 0, largest = 1;
        for (int k = 0; k < 4; ++k) {
          sum += inverse.m[i][k] * matrix.m[k][j];
          largest = std::max(largest, std::fabs(inverse.m[i][k]));
        }
        EXPECT_NEAR(sum, i == j ? 1.0f : 0.0f, 4e-6f * largest);
      }
  }
  Mat4 untouched;
  EXPECT_FALSE(Invert({{{1, 2, 3, 4}, {2, 4, 6, 8}, {0, 0, 1, 0}, {0, 0, 0, 1}}}, untouched));
  EXPECT_FALSE(Invert({{{std::nanf(""), 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}}, untouched));
  EXPECT_EQ(untouched, Mat4{});
}

TEST_F(GeometryTest, InstancesGetBoxAndNormalMatrix) {
  const Box box = {{1, 2, 3}, {4, 5, 6}};
  objectTable.resize(1);
  Instance instance;
  instance.object = 0;
  const auto finish = [&](const Box& bounds) {
    objectTable[0].bounds = bounds;
    FinishInstance(instance, bounds);
    return InstanceBox(instance);
  };
  instance.matrix = {{{0, -2, 0, 10}, {2, 0, 0, 20}, {0, 0, 4, 30}, {0, 0, 0, 1}}};  // quarter turn, scaled
  EXPECT_EQ(finish(box), (Box{{0, 22, 42}, {6, 28, 54}}));
  const Vec3 along = TransformDirection(instance.matrix, {1, 0, 1});
  const Vec3 normal = NormalMatrix(instance) * Vec3{1, 0, -1};
  EXPECT_NEAR(Dot(along, normal), 0, 1e-6f);  // normals stay perpendicular
  instance.matrix.m[3][3] = 2;                // a projective matrix divides
  EXPECT_EQ(finish(box), (Box{{0, 11, 21}, {3, 14, 27}}));
  EXPECT_EQ(ToObject(instance, {1, 11, 23}), (Vec3{1, 4, 4}));
  EXPECT_TRUE(IsEmpty(finish({})));

  instance.matrix.m[0][1] = 0;
  Box last;
  rows = Printed([&] { last = finish(box); });
  EXPECT_EQ(rows, "error :( \tobject - an instance matrix has no inverse\n");
  EXPECT_TRUE(IsEmpty(last));
}

TEST_F(GeometryTest, ValidationRows) {
  const std::string mixed =
      "error :( \tobject - mixed types (ex. cylinders and triangles in the same group) \n" + kRule;
  Part part;
  part.positions.resize(4);
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
  ShaderAt(flipped).geometry.flipFace = true;
  Part part;
  part.positions = kRectangle;
  part.shader = paint;
  part.triangles = {{{0, 1, 2}, 0}, {{0, 1, 2}, flipped}, {{0, 1, 2}, 77}, {{0, 1, 2}, -5}};
  part.tetragons = {{{0, 1, 2, 3}, flipped}};
  part.vectorSets = {{"motion", {}}};
  EXPECT_EQ(Prepare(part), "");
  EXPECT_TRUE(part.motion);
  const Vec3 a = kRectangle[0], b = kRectangle[1], c = kRectangle[2];
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(part.triangles[i].shader, i == 1 ? flipped : paint);
    EXPECT_EQ(Corners(part, i), (i == 1 ? Points{b, a, c} : Points{a, b, c}));
  }
  EXPECT_EQ(part.positions.at(part.tetragons[0].vertex[0]), c);
  EXPECT_EQ(part.positions.at(part.tetragons[0].vertex[2]), a);

  // The object's own shader reaches a Part only through the name that hosts may give.
  Object object;
  object.shader = paint;
  for (const bool named : {false, true}) {
    Part bare;
    if (named) bare.materialName = "undefined";
    Prepare(bare, object);
    EXPECT_EQ(bare.shader, named ? paint : 0);
  }
}

TEST_F(GeometryTest, BoxesAndCurves) {
  Object object;
  Part& part = object.parts.emplace_back();
  part.positions = kRectangle;
  part.scalarSets[0].values = {1, 0.5f, 0, 2};
  part.triangles = {{{0, 1, 2}, 0}};
  part.particles = {3};
  Build(object);
  Update(object, true, 1);
  EXPECT_EQ(object.bounds, (Box{{-2, 0, -2}, {3, 6, 2}}));

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

}  // namespace
}  // namespace zp
