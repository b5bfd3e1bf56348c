// post/mix.h: the beauty as the sum of its light groups.

#pragma once

#include <string>
#include <vector>

#include "core/vec.h"
#include "post/layers.h"

namespace zp {

struct LightWeight {
  std::string name;  // of the group, without "light_"
  Vec3 weight = {1, 1, 1};
};

// The names of the picture's light groups, without "light_".
std::vector<std::string> LightGroups(const LayeredPicture& picture);
// Weighs the groups, and replaces the beauty's colours by their sum; what is not named counts once. Needs a
// beauty, and each name. Returns the layers that told of the beauty as it was, and are left out where a
// weight is not 1: half sets, and the variance.
std::vector<std::string> MixLights(LayeredPicture& picture, const std::vector<LightWeight>& weights);

}  // namespace zp
