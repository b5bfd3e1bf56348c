// app/image_commands.h: verbs that make pictures of pictures. As in commands.h, each returns an exit status
// and explains a failing one in one line.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "commands.h"
#include "post/compare.h"
#include "post/layers.h"
#include "post/mix.h"

namespace CLI {
class App;
}

namespace zp {

struct DenoiseWords {
  std::string input, output;
  bool lightGroups = false;
  std::string exportFolder;  // empty: none
};
int RunDenoise(const DenoiseWords& words);

struct DiffWords {
  std::string first, second;
  Metric metric = Metric::kRelative;
  std::optional<double> threshold;
  std::string layer;    // alone; empty: all
  std::string picture;  // PNG of where they differ; empty: none
};
int RunDiff(const DiffWords& words);

struct MixWords {
  std::string input, output;
  std::vector<LightWeight> lights;
};
int RunMix(const MixWords& words);

int RunInfo(const std::string& input);

struct DespikeWords {
  std::string input, output;
  double strength = 3;
};
int RunDespike(const DespikeWords& words);

// Declares `denoise` and `image` with its verbs. The one that the words have named is then run by
// RunPictureVerb, none if it is another's.
void AddPictureVerbs(CLI::App& app);
std::optional<int> RunPictureVerb(const CLI::App& app);

// What all of them share. A status where there is no picture, which has been told.
std::optional<int> ReadPicture(const std::string& path, LayeredPicture& picture,
                               ExitStatus status = kExitFailed);
// kExitDone, or the failure that was told. Tells on the error stream how many numbers did not fit halves.
int WritePicture(const std::string& path, const LayeredPicture& picture);
// "beauty, N, Z".
std::string LayerNames(const LayeredPicture& picture);
// Readies files, runs the verb and ends them.
int WithImageFiles(const std::function<int()>& verb);

}  // namespace zp
