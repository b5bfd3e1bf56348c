#include "core/sample_points.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <vector>

#include "core/random.h"
#include "core/settings.h"

namespace zp {
namespace {

class SamplePoints : public testing::Test {
 protected:
  SamplePoints() {
    StartRandom(5);
    StartSamplePoints();
  }
  ~SamplePoints() override { StartRandom({}); }
};

// The most points, out of 2^m, in an interval of 2^-a by 2^(a - m).
int MostIn(int a, const std::vector<PointBits>& points) {
  const int m = static_cast<int>(std::lround(std::log2(points.size())));
  std::map<std::uint64_t, int> counts;
  int most = 0;
  for (const PointBits p : points)
    most = std::max(most, ++counts[static_cast<std::uint64_t>(p.x) << a >> 32U << 32U |
                                   static_cast<std::uint64_t>(p.y) << (m - a) >> 32U]);
  return most;
}
// In any such interval; 1 of a net.
int MostInAny(int m, const std::vector<PointBits>& points) {
  int most = 0;
  for (int a = 0; a <= m; ++a) most = std::max(most, MostIn(a, points));
  return most;
}

// In each pixel, of each decision, from the first number and from a later one.
TEST_F(SamplePoints, EachPixelTakesNets) {
  for (const int x : {0, 7, 4000})
    for (const std::uint32_t decision : {1U, 2U, 900U})
      for (int m = 0; m <= 8; ++m)
        for (const std::uint32_t first : {0U, 3U << m}) {
          std::vector<PointBits> points, even;
          const PointSource source = PointSourceOf(x, 11, 0);
          for (std::uint32_t i = 0; i < 1U << m; ++i) {
            points.push_back(PointAt(source, decision, first + i));
            even.push_back(EvenPointAt(source, decision, first + i));
            ASSERT_EQ((even.back().x ^ even[0].x) << m, 0) << "at equal distances " << m;
            ASSERT_EQ((even.back().y ^ even[0].y) << m, 0) << m;
          }
          ASSERT_EQ(MostInAny(m, points), 1) << x << " " << decision << " " << m;
          ASSERT_EQ(MostInAny(m, even), 1) << x << " " << decision << " " << m;
        }
}

// Each half set takes nets of its own, which know nothing of the other's.
TEST_F(SamplePoints, HalfSetsAreApart) {
  settings.said.halfSets = true;
  for (int x = 0; x < 40; ++x)
    for (const std::uint32_t half : {0U, 1U}) {
      std::vector<PointBits> points;
      for (std::uint32_t i = 0; i < 16; ++i) {
        PointSource source = PointSourceOf(x, 11, 2 * i + half);
        points.push_back(PointAt(source, 3, source.number));
      }
      EXPECT_EQ(MostInAny(4, points), 1);
    }
  EXPECT_NE(PointSourceOf(3, 4, 0).key, PointSourceOf(3, 4, 1).key);
  EXPECT_NE(ShutterInstant(0), ShutterInstant(1));
  settings.said.halfSets = false;
}

// The points of 2^n neighbours: of one sample each a net; of several each coordinate is, and both nearly.
TEST_F(SamplePoints, NeighboursShareTheSquare) {
  for (int m = 0; m <= 4; ++m)
    for (int n = 0; n <= 8; ++n) {
      std::vector<PointBits> points;
      for (int place = 0; place < 1 << n; ++place) {
        int x = 32, y = 64;
        for (int bit = 0; bit < 4; ++bit)
          x += (place >> 2 * bit & 1) << bit, y += (place >> (2 * bit + 1) & 1) << bit;
        for (std::uint32_t i = 0; i < 1U << m; ++i) points.push_back(PointAt(PointSourceOf(x, y, 0), 3, i));
      }
      EXPECT_LE(MostInAny(m + n, points), m == 0 ? 1 : 4) << m << " " << n;
      EXPECT_EQ(MostIn(0, points) + MostIn(m + n, points), 2) << m << " " << n;
    }
}

// Correlation, over pixels and numbers, of points that have nothing to do with each other.
TEST_F(SamplePoints, DecisionsAndTilesAreIndependent) {
  const auto correlation = [](auto other) {
    double sum = 0;
    int count = 0;
    for (int x = 0; x < 640; x += 3)
      for (std::uint32_t i = 0; i < 16; ++i, ++count) {
        const PointBits a = PointAt(PointSourceOf(x, 5, 0), 1, i), b = other(x, i);
        sum += (static_cast<double>(a.x) * 0x1p-32 - 0.5) * (static_cast<double>(b.x) * 0x1p-32 - 0.5) * 12;
        sum += (static_cast<double>(a.x) * 0x1p-32 - 0.5) * (static_cast<double>(b.y) * 0x1p-32 - 0.5) * 12;
      }
    return sum / count;
  };
  EXPECT_NEAR(correlation([](int x, auto i) { return PointAt(PointSourceOf(x, 5, 0), 2, i); }), 0, 0.05);
  EXPECT_NEAR(correlation([](int x, auto i) { return PointAt(PointSourceOf(x + kPointTile, 5, 0), 1, i); }),
              0, 0.05);
  EXPECT_NEAR(correlation([](int x, auto i) { return PointAt(PointSourceOf(x + 32, 37, 0), 1, i); }), 0,
              0.05);
}

TEST_F(SamplePoints, InstantsOfTheShutter) {
  for (const std::uint32_t passes : {1U, 4U, 64U}) {
    std::set<int> sixths;
    for (std::uint32_t pass = 0; pass < passes; ++pass)
      sixths.insert(static_cast<int>(std::lround(ShutterInstant(pass) * 6 * static_cast<float>(passes))));
    EXPECT_EQ(sixths.size(), passes);
    for (const int sixth : sixths) EXPECT_EQ(std::abs(sixth % 6 - 3), 1) << "near the middle of its interval";
  }
}

}  // namespace
}  // namespace zp
