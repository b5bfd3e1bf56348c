// Many point or parallel lights, of which hits pick a few in format 2.

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <utility>

#include "core/index.h"
#include "core/release.h"
#include "lights/gaffer.h"
#include "lights/light_tree.h"
#include "lights/lights.h"

namespace zp {

std::vector<LightGroup> lightGroups;
std::vector<std::int32_t> lonePointLights, loneParallelLights;

namespace {

float PowerOf(const Light& light) {
  const Vec3 c = light.color;
  return Mean({std::fabs(c.x), std::fabs(c.y), std::fabs(c.z)});
}

Box BoxAround(Vec3 center, float radius) {
  const Vec3 r = {radius, radius, radius};
  return {center - r, center + r};
}

LightBounds BoundsOf(const PointLight& light) {
  LightBounds bounds;
  bounds.box = BoxAround(light.position, MaxOf(light.blur, 0.0f));
  bounds.front = PowerOf(light);
  bounds.spot = true;
  bounds.cosine = -1;
  if (light.direction == kBlack || !(light.innerCut <= light.outerCut)) return bounds;
  bounds.axis = light.direction;
  const float outer = std::clamp(light.outerCut, 0.0f, kPi);
  bounds.cosine = std::cos(outer);
  bounds.rim = outer - std::clamp(light.innerCut, 0.0f, outer);
  return bounds;
}

// As a place on the unit sphere, seen from its middle.
LightBounds BoundsOf(const ParallelLight& light) {
  LightBounds bounds;
  if (light.zAxis == kBlack) return bounds;
  bounds.box = BoxAround(-light.zAxis, std::sqrt(std::max(2 - 2 * light.cosine, 0.0f)));
  bounds.front = PowerOf(light);
  bounds.cosine = -1;
  return bounds;
}

template <class Kind>
void MakeGroup(const std::vector<Kind>& lights, std::vector<std::int32_t> members, bool parallel) {
  constexpr std::int32_t kPicks = 4;
  LightGroup group;
  group.parallel = parallel;
  group.link = At(lights, members[0]).link;
  group.sample = kPicks;
  std::vector<LightBounds> bounds;
  for (const std::int32_t index : members) {
    const Light& light = At(lights, index);
    bounds.push_back(BoundsOf(At(lights, index)));
    group.sample = std::max(group.sample, light.sample);
    group.seesAllSides = group.seesAllSides || light.offset < 0;
    group.hasAovs = group.hasAovs || !light.aovs.empty();
  }
  auto tree = std::make_shared<LightTree>();
  BuildLightTree(*tree, bounds);
  group.tree = std::move(tree);
  group.lights = std::move(members);
  lightGroups.push_back(std::move(group));
}

// Those of one link go together where there are more than a few.
template <class Kind>
void GroupLights(const std::vector<Kind>& lights, bool parallel, std::vector<std::int32_t>& lone) {
  constexpr std::size_t kFew = 8;
  lone.clear();
  std::map<std::vector<std::int32_t>, std::vector<std::int32_t>> byLink;
  for (std::size_t i = 0; i < lights.size(); ++i) {
    std::vector<std::int32_t> link = lights[i].link.shaders;
    std::sort(link.begin(), link.end());
    byLink[std::move(link)].push_back(static_cast<std::int32_t>(i));
  }
  for (auto& [link, members] : byLink) {
    if (settings.format >= 2 && members.size() > kFew)
      MakeGroup(lights, std::move(members), parallel);
    else
      lone.insert(lone.end(), members.begin(), members.end());
  }
  std::sort(lone.begin(), lone.end());
}

}  // namespace

void GroupLights() {
  lightGroups.clear();
  GroupLights(pointLights, false, lonePointLights);
  GroupLights(parallelLights, true, loneParallelLights);
}

void ReleaseLightGroups() {
  Release(lightGroups);
  Release(lonePointLights);
  Release(loneParallelLights);
}

bool PickFromGroup(const LightGroup& group, LightReceiver receiver, double number, GroupPick& pick) {
  if (group.parallel) receiver.position = kBlack;
  if (group.seesAllSides) receiver = {.position = receiver.position};
  LightPick one;
  if (!PickLight(*group.tree, receiver, number, one)) return false;
  pick = {At(group.lights, one.light), one.probability, one.rest};
  return true;
}

}  // namespace zp
