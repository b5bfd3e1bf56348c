#include "lights/mix_groups.h"

#include <algorithm>
#include <set>

#include "imaging/frame_layers.h"

namespace zp {

std::vector<std::string> NamedGroups() {
  std::set<std::string> names = {skyLight.group, geometryLight.group};
  for (const Light& light : pointLights) names.insert(light.group);
  for (const Light& light : parallelLights) names.insert(light.group);
  for (const Shader& shader : shaders) names.insert(shader.group);
  names.erase("");
  names.erase(std::string(kRestGroup));
  return {names.begin(), names.end()};
}

void NumberGroups(const std::vector<std::string>& names) {
  const auto find = [&names](std::string_view name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
  };
  const auto count = static_cast<std::ptrdiff_t>(names.size());
  const auto numberOf = [&](std::string_view name) {
    std::ptrdiff_t number = find(name);
    if (number == count) number = find(kRestGroup);
    return static_cast<std::int32_t>(number == count ? 0 : number);
  };
  for (Light& light : pointLights) light.groupIndex = numberOf(light.group);
  for (Light& light : parallelLights) light.groupIndex = numberOf(light.group);
  skyLight.groupIndex = numberOf(skyLight.group);
  const std::int32_t ofGeometry = numberOf(geometryLight.group);
  for (Shader& shader : shaders) {
    const bool showsSky =
        std::any_of(shader.surfaces.begin(), shader.surfaces.end(),
                    [](const SurfaceShader& layer) { return layer.window || layer.shadowCatcher; });
    shader.groupIndex = !shader.group.empty() ? numberOf(shader.group)
                        : showsSky            ? skyLight.groupIndex
                                              : ofGeometry;
  }
}

}  // namespace zp
