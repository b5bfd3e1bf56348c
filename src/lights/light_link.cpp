#include <algorithm>

#include "lights/lights.h"

namespace zp {

void ResolveLink(ShaderLink& link) {
  for (const std::string& name : link.names) {
    const std::int32_t shader = FindShader(name);
    // Entered once, so that a second initialisation changes nothing.
    if (shader != kNone && std::find(link.shaders.begin(), link.shaders.end(), shader) == link.shaders.end())
      link.shaders.push_back(shader);
  }
}

bool IsLinked(const ShaderLink& link, std::int32_t shader) {
  return link.shaders.empty() ||
         std::find(link.shaders.begin(), link.shaders.end(), shader) != link.shaders.end();
}

}  // namespace zp
