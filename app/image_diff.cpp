// app/image_diff.cpp: two pictures in figures.

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "image_commands.h"

namespace zp {
namespace {

const char* NameOf(const std::string& layer) { return layer.empty() ? "beauty" : layer.c_str(); }

void PrintDifference(const LayerDifference& difference) {
  std::printf("%-16s rmse %.6g   relative %.6g   max %.6g", NameOf(difference.layer), difference.rmse,
              difference.relative, difference.max);
  if (difference.max > 0)
    std::printf("   worst pixel %d,%d %s: %.6g and %.6g", difference.x, difference.y,
                difference.channel.c_str(), difference.a, difference.b);
  std::printf("\n");
}

// False if there is none of that name.
bool KeepLayer(LayeredPicture& picture, const std::string& name) {
  std::erase_if(picture.layers, [&name](const Layer& layer) { return NameOf(layer.name) != name; });
  return !picture.layers.empty();
}

}  // namespace

// Of several layers, the farthest decides.
int RunDiff(const DiffWords& words) {
  LayeredPicture a, b;
  if (const auto status = ReadPicture(words.first, a, kExitUsage)) return *status;
  if (const auto status = ReadPicture(words.second, b, kExitUsage)) return *status;
  if (!words.layer.empty() && !(KeepLayer(a, words.layer) && KeepLayer(b, words.layer)))
    return Fail("there is no layer '" + words.layer + "' in both", kExitUsage, "no-match");
  std::string problem;
  const PictureDifference difference = Compare(a, b, problem);
  if (!problem.empty())
    return Fail("cannot compare '" + words.first + "' and '" + words.second + "': " + problem, kExitUsage,
                "no-match");
  double worst = 0;
  for (const LayerDifference& layer : difference.layers) {
    PrintDifference(layer);
    worst = std::max(worst, layer.Of(words.metric));
  }
  for (const std::string& layer : difference.onlyFirst)
    std::printf("%-16s only in '%s'\n", NameOf(layer), words.first.c_str());
  for (const std::string& layer : difference.onlySecond)
    std::printf("%-16s only in '%s'\n", NameOf(layer), words.second.c_str());
  if (!words.picture.empty())
    if (const int status = WritePicture(words.picture, DifferencePicture(a, b)); status != kExitDone)
      return kExitUsage;
  return words.threshold && !(worst <= *words.threshold) ? kExitFailed : kExitDone;
}

}  // namespace zp
