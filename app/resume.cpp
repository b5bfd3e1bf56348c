#include "resume.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

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
               {"linear", options.linear}};
  VisitKept(options, [&](const char* name, const auto& member) {
    if (member) kept[name] = *member;
  });
  if (const auto& region = options.region)
    kept["region"] = {region->left, region->top, region->right, region->bottom};
  return kept.dump(-1, ' ', false, Json::error_handler_t::replace);
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
  if (!options.region && kept.contains("region")) {
    const Json& region = kept["region"];
    options.region = Region{region.at(0), region.at(1), region.at(2), region.at(3)};
  }
  if (options.checkpoint.empty()) options.checkpoint = options.resume;
  options.seed = options.seed ? options.seed : checkpoint.plan.seed;
}

std::uint64_t DrawSeed() {
  std::random_device device;
  return std::uint64_t{device()} << 32U | device();
}

}  // namespace zp
