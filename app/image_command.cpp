// app/image_command.cpp: the words of `denoise` and `image`, and what these verbs share.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "core/settings.h"
#include "image_commands.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

DenoiseWords denoiseWords;
DiffWords diffWords;
MixWords mixWords;
DespikeWords despikeWords;
std::string infoInput;

void AddInOut(CLI::App& verb, std::string& input, std::string& output) {
  const auto named = [](const std::string& text) {
    return std::string(text.empty() ? "a file name is missing" : "");
  };
  verb.add_option("input", input, "Picture of any format that the renderer reads")
      ->required()
      ->type_name("IN");
  verb.add_option("output", output, "File; its extension chooses the format")
      ->required()
      ->type_name("OUT")
      ->check(named);
}

void AddDiff(CLI::App& image) {
  CLI::App* verb = image.add_subcommand("diff", "Tell how far two pictures are apart");
  verb->add_option("a", diffWords.first, "Picture")->required()->type_name("A");
  verb->add_option("b", diffWords.second, "Picture that it is measured by")->required()->type_name("B");
  verb->add_option_function<std::string>(
          "--metric", [](const std::string& word) { diffWords.metric = *MetricOf(word); },
          "What --threshold is about: rmse, relative or max; relative if not given")
      ->type_name("METRIC")
      ->check(CLI::IsMember({"rmse", "relative", "max"}));
  verb->add_option("--threshold", diffWords.threshold, "Exit with 1 if the metric is above")
      ->type_name("X")
      ->check(CLI::NonNegativeNumber);
  verb->add_option("--layer", diffWords.layer, "Compare this layer alone")->type_name("NAME");
  verb->add_option("--picture", diffWords.picture, "Picture of where they differ")->type_name("OUT.png");
}

// "NAME=WEIGHT" or "NAME=R,G,B".
LightWeight ParseWeight(const std::string& text) {
  LightWeight result;
  const std::size_t equals = text.rfind('=');
  result.name = text.substr(0, equals);
  const char* at = text.data() + std::min(equals, text.size() - 1) + 1;
  const char* const end = text.data() + text.size();
  int count = 0;
  for (bool more = equals != text.npos && equals > 0; more && count < 3; ++count) {
    const auto [next, error] = std::from_chars(at, end, result.weight[count]);
    if (error != std::errc{} || !std::isfinite(result.weight[count])) break;
    more = next != end && *next == ',';
    at = more ? next + 1 : next;
  }
  if (at != end || (count != 1 && count != 3))
    throw CLI::ValidationError("--light", "'" + text + "' is no weight like NAME=0.5 or NAME=1,0.8,0.6");
  if (count == 1) result.weight = {result.weight.x, result.weight.x, result.weight.x};
  return result;
}

void AddMix(CLI::App& image) {
  CLI::App* verb = image.add_subcommand("mix", "Make the beauty anew of its light groups");
  AddInOut(*verb, mixWords.input, mixWords.output);
  verb->add_option_function<std::vector<std::string>>(
          "--light",
          [](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) mixWords.lights.push_back(ParseWeight(text));
          },
          "Weight of a light group, or three for red, green and blue; 1 if not given")
      ->type_name("NAME=WEIGHT")
      ->take_all();
}

void AddImage(CLI::App& app) {
  CLI::App* image = app.add_subcommand("image", "Compare, mix, describe and mend pictures");
  image->require_subcommand(1);
  AddDiff(*image);
  AddMix(*image);
  CLI::App* info = image->add_subcommand("info", "Tell what a picture file holds");
  info->add_option("input", infoInput, "Picture")->required()->type_name("IN");
  CLI::App* despike = image->add_subcommand("despike", "Take out single pixels that are far too bright");
  AddInOut(*despike, despikeWords.input, despikeWords.output);
  despike
      ->add_option("--strength", despikeWords.strength,
                   "How often as bright as its neighbours a pixel must be; 3 if not given")
      ->type_name("X")
      ->check(CLI::Range(1.0, 1e9));
}

}  // namespace

void AddPictureVerbs(CLI::App& app) {
  CLI::App* denoise = app.add_subcommand("denoise", "Take the noise out of a render with its layers");
  AddInOut(*denoise, denoiseWords.input, denoiseWords.output);
  denoise->add_flag("--light-groups", denoiseWords.lightGroups, "Denoise the light groups too");
  denoise
      ->add_option(
          "--export", denoiseWords.exportFolder,
          "Write color.pfm, albedo.pfm and normal.pfm for Open Image Denoise into this folder as well")
      ->type_name("FOLDER");
  AddImage(app);
}

std::optional<int> RunPictureVerb(const CLI::App& app) {
  const auto run = [](const std::function<int()>& verb) { return WithImageFiles(verb); };
  if (app.got_subcommand("denoise")) return run([] { return RunDenoise(denoiseWords); });
  if (!app.got_subcommand("image")) return {};
  const std::string verb = app.get_subcommand("image")->get_subcommands().front()->get_name();
  if (verb == "diff") return run([] { return RunDiff(diffWords); });
  if (verb == "mix") return run([] { return RunMix(mixWords); });
  if (verb == "info") return run([] { return RunInfo(infoInput); });
  return run([] { return RunDespike(despikeWords); });
}

std::optional<int> ReadPicture(const std::string& path, LayeredPicture& picture, ExitStatus status) {
  const std::string reason = ReadLayers(path, picture);
  if (reason.empty()) return {};
  return Fail("there is no picture to read in '" + path + "': " + reason, status);
}

int WritePicture(const std::string& path, const LayeredPicture& picture) {
  std::size_t held = 0;
  const std::string reason = WriteLayers(path, picture, &held);
  if (!reason.empty()) return Fail("cannot write the picture '" + path + "': " + reason);
  if (held > 0) std::printf("%zu numbers were too large for halves\n", held);
  return kExitDone;
}

std::string LayerNames(const LayeredPicture& picture) {
  std::string names;
  for (const Layer& layer : picture.layers)
    names += (names.empty() ? "" : ", ") + (layer.name.empty() ? std::string("the beauty") : layer.name);
  return names;
}

int WithImageFiles(const std::function<int()>& verb) {
  settings.format = 2;  // no scene of format 1 asks for full components of 257, or for palettes as numbers
  StartImageFiles();
  const int status = verb();
  StopImageFiles();
  return status;
}

}  // namespace zp
