// app/image_mix.cpp: light groups in other proportions.

#include <algorithm>
#include <cstdio>

#include "core/words.h"
#include "image_commands.h"

namespace zp {

int RunMix(const MixWords& words) {
  LayeredPicture picture;
  if (const auto status = ReadPicture(words.input, picture)) return *status;
  const std::vector<std::string> groups = LightGroups(picture);
  const Layer* beauty = FindLayer(picture, "");
  if (groups.empty() || beauty == nullptr || beauty->channels.size() < 3)
    return Fail("cannot mix '" + words.input + "': it has no light groups");
  for (const LightWeight& light : words.lights) {
    if (std::find(groups.begin(), groups.end(), light.name) != groups.end()) continue;
    const std::vector<std::string_view> names(groups.begin(), groups.end());
    const std::string_view nearest = NearestWord(light.name, names);
    const std::string hint = nearest.empty() ? "" : ", did you mean '" + std::string(nearest) + "'?";
    return Fail("cannot mix '" + words.input + "': there is no light group '" + light.name + "'" + hint);
  }
  std::string dropped;
  for (const std::string& name : MixLights(picture, words.lights))
    dropped += (dropped.empty() ? "" : ", ") + name;
  if (!dropped.empty()) std::printf("left out, since they are of the picture before: %s\n", dropped.c_str());
  return WritePicture(words.output, picture);
}

}  // namespace zp
