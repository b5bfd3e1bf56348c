// lights/mix_groups.h: the light groups that scene text names by `group`, whose light pictures can tell
// apart. (A LightGroup of lights.h is about samples.)

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lights/lights.h"

namespace zp {

// By lights and Shaders: each once, in the order of the alphabet, without "rest".
std::vector<std::string> NamedGroups();

// Gives lights and Shaders the number of their group among `names`; what has none of them goes to "rest", or
// to number 0 without that. A Shader without a name goes with the sky if it is a window or
// catches shadows, else with the geometry light.
void NumberGroups(const std::vector<std::string>& names);

// Of what a Shader sends.
inline std::int32_t EmissionGroup(std::int32_t shader) {
  return HasShader(shader) ? ShaderAt(shader).groupIndex : 0;
}

}  // namespace zp
