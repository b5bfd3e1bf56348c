// The tree that many lights are picked from, against sums over all of them.

#include "lights/light_tree.h"

#include <gtest/gtest.h>

#include <cmath>

#include "core/random.h"
#include "core/vec.h"

namespace zp {
namespace {

Vec3 RandomVector() { return {2 * RandomFloat() - 1, 2 * RandomFloat() - 1, 2 * RandomFloat() - 1}; }

// Small flat lights of very different power, one side or both, or spots.
std::vector<LightBounds> RandomLights(int count, bool spots) {
  std::vector<LightBounds> lights;
  for (int i = 0; i < count; ++i) {
    LightBounds light;
    const Vec3 center = RandomVector();
    light.axis = UnitVector(RandomVector());
    light.box = {center, center};
    light.front = std::exp(6 * RandomFloat());
    light.back = !spots && i % 3 == 0 ? light.front : 0;
    if (i % 17 == 0) light.front = light.back = 0;
    if (spots) {
      light.spot = true;
      light.cosine = std::cos(3 * RandomFloat());
      light.rim = 0.5f * std::acos(light.cosine);
    }
    lights.push_back(light);
  }
  return lights;
}

// Whether the light reaches the receiver at all.
bool Reaches(const LightBounds& light, const LightReceiver& receiver) {
  const Vec3 way = receiver.position - light.box.min;
  const float cosine = Dot(UnitVector(way), light.axis);
  const bool sent = light.spot ? light.front > 0 && cosine > light.cosine
                               : (light.front > 0 && cosine > 0) || (light.back > 0 && cosine < 0);
  return sent && (receiver.seesAllSides || Dot(way, receiver.normal) < 0);
}

class LightTrees : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Kinds, LightTrees, testing::Bool());

TEST_P(LightTrees, PicksByKnownChances) {
  StartRandom(3);
  for (int count : {1, 7, 8, 9, 700}) {
    std::vector<LightBounds> lights = RandomLights(count, GetParam());
    LightTree tree;
    BuildLightTree(tree, lights);
    for (int round = 0; round < 3; ++round) {
      EXPECT_EQ(ValidateLightTree(tree, lights), "");
      const bool all = round == 1;
      const LightReceiver receiver = {RandomVector(), all ? kBlack : UnitVector(RandomVector()), all};
      double sum = 0;
      for (std::uint32_t i = 0; i < lights.size(); ++i) {
        const float chance = PickProbability(tree, receiver, i);
        sum += double{chance};
        EXPECT_TRUE(chance > 0 || !Reaches(lights[i], receiver)) << count << " " << i;
      }
      constexpr int kPicks = 20000;
      std::vector<double> counts(lights.size() + 1);
      for (int i = 0; i < kPicks; ++i) {
        LightPick pick;
        const bool picked = PickLight(tree, receiver, (i + 0.5) / kPicks, pick);
        counts[picked ? pick.light : lights.size()] += 1;
        if (!picked) continue;
        EXPECT_NEAR(pick.probability / PickProbability(tree, receiver, pick.light), 1, 1e-4);
        EXPECT_TRUE(pick.rest >= 0 && pick.rest < 1);
      }
      for (std::uint32_t i = 0; i < lights.size(); ++i)
        EXPECT_NEAR(counts[i] / kPicks, double{PickProbability(tree, receiver, i)}, 2.0 / kPicks) << count;
      EXPECT_NEAR(counts.back() / kPicks, 1 - sum, 1e-3);  // nodes that turn out to hold nothing
      for (LightBounds& light : lights) {                  // and go on with the same lights elsewhere
        const Vec3 center = RandomVector();
        light.box = {center, center};
      }
      RefitLightTree(tree, lights);
    }
  }
}

}  // namespace
}  // namespace zp
