#include "resume.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "integrator/integrator.h"
#include "layered_output.h"

namespace zp {
namespace {

using Json = nlohmann::json;

std::string FromRoot(const std::string& name) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(name, error);
  return name.empty() || error ? name : path.lexically_normal().string();
}

// Calls visit(name, member) for the options that are kept.
template <class Options, class Visit>
void VisitKept(Options& options, const Visit& visit) {
  visit("sample", options.sample);
  visit("width", options.width);
  visit("height", options.height);
  visit("seed", options.seed);
  visit("format", options.format);
  visit("time", options.time);
  visit("noise", options.noise);
  visit("save-every", options.saveEvery);
}

}  // namespace

std::string KeptOptions(const RenderOptions& options) {
  Json kept = {{"scene", FromRoot(options.scene)},
               {"output", FromRoot(options.output)},
               {"camera", options.camera},
               {"linear", options.linear},
               {"aov", options.aov},
               {"aov-nearest", options.aovNearest},
               {"float", options.floats},
               {"layers", WantsLayers(options)},
               {"denoise", options.denoise},
               {"transparent-sky", options.transparentSky}};
  VisitKept(options, [&](const char* name, const auto& member) {
    if (member) kept[name] = *member;
  });
  if (const auto& region = options.region)
    kept["region"] = {region->left, region->top, region->right, region->bottom};
  return kept.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string ReportedOptions(const RenderOptions& options) {
  Json all = Json::parse(KeptOptions(options));
  if (options.threads) all["threads"] = *options.threads;
  all["checkpoint"] = FromRoot(options.checkpoint);
  all["resume"] = FromRoot(options.resume);
  all["strict"] = options.strict;
  if (options.passes) all["passes"] = {options.passes->begin, options.passes->end};
  if (options.varyPhotons) all["vary-photons"] = true;
  return all.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void TakeKeptOptions(const Checkpoint& checkpoint, RenderOptions& options) {
  const Json kept = Json::parse(checkpoint.options);
  VisitKept(options, [&](const char* name, auto& member) {
    if (!member && kept.contains(name)) member = kept[name];
  });
  if (options.scene.empty()) options.scene = kept.value("scene", "");
  if (options.output.empty()) options.output = kept.value("output", "");
  if (options.camera.empty()) options.camera = kept.value("camera", "");
  options.linear = options.linear || kept.value("linear", false);
  if (options.aov.empty()) options.aov = kept.value("aov", options.aov);
  options.denoise = options.denoise || kept.value("denoise", false);
  options.aovNearest = options.aovNearest || kept.value("aov-nearest", false);
  options.floats = options.floats || kept.value("float", false);
  options.layers = kept.value("layers", false);
  options.groups = kept.value("groups", false);
  options.transparentSky = options.transparentSky || kept.value("transparent-sky", false);
  if (!options.region && kept.contains("region")) {
    const Json& region = kept["region"];
    options.region = Region{region.at(0), region.at(1), region.at(2), region.at(3)};
  }
  if (options.checkpoint.empty()) options.checkpoint = options.resume;
  options.seed = options.seed ? options.seed : checkpoint.plan.seed;
  if (!options.passes && checkpoint.plan.end != 0)
    options.passes = Passes{checkpoint.plan.begin, checkpoint.plan.end};
}

std::string ChooseShare(const RenderOptions& options, const Checkpoint* resumed) {
  frameShare = {};
  if (resumed != nullptr) frameShare.photons = static_cast<std::uint32_t>(resumed->plan.photons);
  if (!options.passes) return options.varyPhotons ? "--vary-photons is for parts: --passes is missing" : "";
  if (options.noise) return "--passes and --noise cannot go together: no part knows the others' noise";
  if (options.checkpoint.empty()) return "--passes renders a part into a file: --checkpoint is missing";
  if (!options.seed) return "--passes needs a --seed, which all parts share";
  if (options.sample && options.passes->end > *options.sample)
    return "--passes goes beyond the " + std::to_string(*options.sample) + " of --sample";
  frameShare.passes = PassRange{static_cast<std::uint32_t>(options.passes->begin),
                                static_cast<std::uint32_t>(options.passes->end)};
  if (options.varyPhotons) frameShare.photons = frameShare.passes->begin;
  return {};
}

bool LacksImages(const RenderOptions& options) { return options.passes && options.output.empty(); }

std::uint64_t DrawSeed() {
  std::random_device device;
  return std::uint64_t{device()} << 32U | device();
}

}  // namespace zp
