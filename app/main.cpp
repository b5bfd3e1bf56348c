// app/main.cpp: the words of the command line.

#include <malloc.h>

#include <CLI/CLI.hpp>
#include <array>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "commands.h"
#include "completion.h"
#include "core/ray.h"
#include "core/words.h"
#include "image_commands.h"
#include "imaging/imaging.h"
#include "layered_output.h"
#include "new_command.h"
#include "run_log.h"

namespace zp {
namespace {

constexpr std::int32_t kMaxSide = 65535;  // pixels

// Whole numbers with `separator` between them and nothing else in the text.
template <std::size_t kCount>
bool ParseIntegers(const std::string& text, char separator, std::array<std::int32_t, kCount>& values) {
  const char* at = text.data();
  const char* const end = at + text.size();
  for (std::size_t i = 0; i < kCount; i++) {
    if (i > 0 && (at == end || *at++ != separator)) return false;
    const auto [next, error] = std::from_chars(at, end, values[i]);
    if (error != std::errc{}) return false;
    at = next;
  }
  return at == end;
}

void AddPixels(CLI::App& render, RenderOptions& options) {
  render
      .add_option_function<std::string>(
          "--resolution",
          [&options](const std::string& text) {
            std::array<std::int32_t, 2> size = {};
            if (!ParseIntegers(text, 'x', size) || size[0] < 1 || size[1] < 1 || size[0] > kMaxSide ||
                size[1] > kMaxSide)
              throw CLI::ValidationError("--resolution", "'" + text + "' is no size like 960x540");
            options.width = size[0];
            options.height = size[1];
          },
          "Width and height in pixels")
      ->type_name("WxH");
  render
      .add_option_function<std::string>(
          "--region",
          [&options](const std::string& text) {
            std::array<std::int32_t, 4> box = {};
            if (!ParseIntegers(text, ',', box) || box[0] < 0 || box[1] < 0 || box[2] <= box[0] ||
                box[3] <= box[1])
              throw CLI::ValidationError("--region", "'" + text + "' is no region like 0,0,480,270");
            options.region = Region{box[0], box[1], box[2], box[3]};
          },
          "Render these pixels only: left, top, right, bottom; right and bottom excluded")
      ->type_name("L,T,R,B");
}

void AddFormat(CLI::App& verb, std::optional<std::int32_t>& format) {
  verb.add_option("--format", format, "Rules of format 1 or 2, whatever the scene says")
      ->type_name("N")
      ->check(CLI::IsMember({"1", "2"}));
}

// Seconds of a text like "90", "45s", "30m" or "1h30m"; none of any other.
std::optional<double> ParseDuration(const std::string& text) {
  double seconds = 0, lastUnit = 1e9;
  const char* at = text.data();
  const char* const end = at + text.size();
  if (at == end) return {};
  while (at != end) {
    double value = 0;
    const auto [next, error] = std::from_chars(at, end, value, std::chars_format::fixed);
    if (error != std::errc{} || !(value >= 0) || !std::isfinite(value)) return {};
    const bool plain = next == end && at == text.data();
    const char unit = next == end ? 's' : *next;
    const double scale = unit == 'h' ? 3600 : unit == 'm' ? 60 : unit == 's' ? 1 : 0;
    if (scale == 0 || scale >= lastUnit || (next == end && !plain)) return {};
    seconds += value * scale;
    lastUnit = scale;
    at = next == end ? end : next + 1;
  }
  return seconds;
}

void AddDuration(CLI::App& verb, const char* name, const char* help,
                 const std::function<void(double)>& take) {
  verb.add_option_function<std::string>(
          name,
          [name, take](const std::string& text) {
            const std::optional<double> seconds = ParseDuration(text);
            if (!seconds)
              throw CLI::ValidationError(name, "'" + text + "' is no time like 90, 45s, 30m or 1h30m");
            take(*seconds);
          },
          help)
      ->type_name("TIME");
}

void AddSaveEvery(CLI::App& verb, RenderOptions& options) {
  AddDuration(
      verb, "--save-every",
      "Write all images as they stand, this often while they render; 60 seconds if not given, 0 never",
      [&options](double seconds) { options.saveEvery = seconds; });
}

void AddKeeping(CLI::App& render, RenderOptions& options) {
  const auto names = [](const std::string& text) {
    return std::string(text.empty() ? "a file name is missing" : "");
  };
  AddSaveEvery(render, options);
  AddDuration(render, "--time", "End the frame behind the pass that is nearest to this time",
              [&options](double seconds) { options.time = seconds; });
  render
      .add_option("--noise", options.noise,
                  "End the frame at this relative error, such as 0.02; in format 2 what has it rests before")
      ->type_name("E")
      ->check([](const std::string& text) {
        double error = 0;
        return std::string(CLI::detail::lexical_cast(text, error) && std::isfinite(error) && error >= 0
                               ? ""
                               : "'" + text + "' is no number from 0 on");
      });
  render
      .add_option("--checkpoint", options.checkpoint,
                  "Keep what is rendered in this file, from which --resume goes on")
      ->type_name("FILE")
      ->check(names);
  render
      .add_option("--resume", options.resume,
                  "Go on from this checkpoint, and keep it; what is not said is as it was")
      ->type_name("FILE")
      ->check(names);
  render
      .add_option("--report", options.report, "Tell in this JSON file what became of the run, failed or not")
      ->type_name("FILE.json")
      ->check(names);
}

void AddServing(CLI::App& render, ServeOptions& options) {
  CLI::Option* serve =
      render
          .add_flag_function(
              "--serve{8000}", [](std::int64_t) {},
              "Show the render on a web page of this machine, by default http://127.0.0.1:8000/")
          ->check([&options](const std::string& text) {
            std::int32_t port = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
            if (error != std::errc{} || end != text.data() + text.size() || port < 0 || port > 65535)
              return "'" + text + "' is no port from 0 to 65535";
            options.port = port;
            return std::string();
          });
  render
      .add_option("--serve-address", options.address,
                  "Serve the page there; others than this machine need a token")
      ->type_name("ADDRESS")
      ->needs(serve);
  render
      .add_option("--serve-token-file", options.tokenFile,
                  "File of the token that browsers give once, as ?token=; or ZEPHLORE_SERVE_TOKEN")
      ->type_name("FILE")
      ->needs(serve);
  render
      .add_flag("--serve-after", options.after,
                "Serve the page behind the last pass, until it is closed there")
      ->needs(serve);
}

void AddParts(CLI::App& render, RenderOptions& options) {
  render
      .add_option_function<std::string>(
          "--passes",
          [&options](const std::string& text) {
            std::array<std::int32_t, 2> range = {};
            if (!ParseIntegers(text, ':', range) || range[0] < 0 || range[1] <= range[0] ||
                range[1] > kMostSamples)
              throw CLI::ValidationError("--passes", "'" + text + "' is no range of passes like 0:8");
            options.passes = Passes{range[0], range[1]};
          },
          "Render a part of the frame: these passes, the second excluded, into --checkpoint")
      ->type_name("A:B");
  render.add_flag("--vary-photons", options.varyPhotons,
                  "Cast other photons than other parts do, so that their merge has less error");
}

void AddLayering(CLI::App& render, RenderOptions& options) {
  render
      .add_option(
          "--aov", options.aov,
          "Layers to add, whatever the scene says: normal, depth, position, uv, motion, albedo, object, "
          "shader, samples, variance, half0, half1, lights (the light groups), or a channel as lambertian")
      ->delimiter(',')
      ->type_name("NAME,...")
      ->check([](const std::string& word) { return LayerObstacle(word); });
  render.add_flag(
      "--denoise", options.denoise,
      "Take the noise out of the finished picture, an OpenEXR file; adds the layers that this needs");
  render.add_flag("--denoise-layers", options.denoiseLayers, "Add the layers that 'zephlore denoise' needs");
  render.add_flag(
      "--aov-nearest", options.aovNearest,
      "Depth, position, normal, uv and motion of the sample nearest to each pixel's middle, not means");
  render.add_flag("--float", options.floats, "32 bits for all layers of an OpenEXR file");
  render.add_flag("--transparent-sky", options.transparentSky,
                  "Leave what the camera sees of sky and backdrop out of the picture");
}

void AddMerge(CLI::App& app, MergeOptions& options) {
  CLI::App* merge =
      app.add_subcommand("merge", "Make the images of a frame of the parts that hold its passes");
  merge->add_option("output", options.output, "Beauty image, or FILE.zpc for a checkpoint again")
      ->required()
      ->type_name("OUT");
  merge->add_option("parts", options.parts, "Checkpoints of one frame")->required()->type_name("PART ...");
  merge->add_flag("--partial", options.partial, "Passes may be missing");
  merge->add_flag("--linear", options.linear, "Linear numbers in files of 8 bits too, as in render");
  merge->add_flag("--quiet", options.quiet, "Do not tell what was merged");
}

// What farm has in common with render.
void AddFrame(CLI::App& verb, RenderOptions& options) {
  verb.add_option("-o,--output", options.output, "Name of the beauty image; its extension chooses the format")
      ->type_name("FILE")
      ->check(
          [](const std::string& text) { return std::string(text.empty() ? "a file name is missing" : ""); });
  verb.add_option("--camera", options.camera,
                  "Camera to render: its name, its number from 0, or 'all'; the first one if not given")
      ->type_name("NAME|NUMBER|all")
      ->check([](const std::string& text) { return std::string(text.empty() ? "a camera is missing" : ""); });
  verb.add_option("--sample", options.sample, "Samples for each pixel")
      ->type_name("N")
      ->check(CLI::Range(1, kMostSamples));
  AddPixels(verb, options);
  verb.add_option("--threads", options.threads, "Worker threads; all processors if not given")
      ->type_name("N")
      ->check(CLI::Range(1, kMaxThreads));
  verb.add_option_function<std::string>(
          "--seed",
          [&options](const std::string& text) {
            std::uint64_t seed = 0;
            const auto [next, error] = std::from_chars(text.data(), text.data() + text.size(), seed);
            if (error != std::errc{} || next != text.data() + text.size())
              throw CLI::ValidationError("--seed", "'" + text + "' is no whole number from 0 to 2^64 - 1");
            options.seed = seed;
          },
          "Repeatable random numbers: the same seed gives the same picture")
      ->type_name("N");
  AddFormat(verb, options.format);
  verb.add_flag("--linear", options.linear,
                "Linear numbers in files of 8 bits too: no exposure and no sRGB curve");
}

void AddFarm(CLI::App& app, FarmOptions& options) {
  CLI::App* farm = app.add_subcommand("farm", "Render a scene in parts by jobs of Slurm, and merge them");
  farm->add_option("scene", options.render.scene, "Scene folder")->required()->type_name("SCENE");
  AddFrame(*farm, options.render);
  AddSaveEvery(*farm, options.render);
  farm->get_option("--output")->required();
  farm->add_option("--parts", options.parts, "Jobs that share the passes")
      ->required()
      ->type_name("N")
      ->check(CLI::Range(1, kMostSamples));
  farm->add_flag("--vary-photons", options.render.varyPhotons,
                 "Cast other photons in each part, so that the picture has less error");
  farm->add_flag("--wait", options.wait, "Wait for the images; status 1 if a part has failed four times");
  farm->add_flag("--print", options.print, "Print the scripts of the jobs, and submit none");
}

// What files of models may leave open.
void AddAxes(CLI::App& verb, std::string& up, std::string& unit) {
  verb.add_option("--up", up,
                  "Axis that points up in obj, ply and stl files; y in obj, z in the others if not given")
      ->type_name("AXIS")
      ->check(CLI::IsMember({"y", "z"}));
  verb.add_option("--unit", unit, "Unit of obj, ply, stl and 3ds files; m if not given")
      ->type_name("UNIT")
      ->check(CLI::IsMember({"m", "cm", "mm", "in"}));
}

void AddImport(CLI::App& app, ImportOptions& options) {
  CLI::App* verb = app.add_subcommand("import", "Make a scene folder of models of other formats");
  verb->add_option("files", options.files, "glTF 2 (glb, gltf), fbx, obj, ply, stl, dae and 3ds files")
      ->required()
      ->type_name("FILE ...");
  verb->add_option("-o,--output", options.output, "Scene folder")
      ->required()
      ->type_name("SCENE")
      ->check([](const std::string& text) { return std::string(text.empty() ? "a folder is missing" : ""); });
  verb->add_flag("--force", options.force, "Replace the scene folder that is there");
  AddAxes(*verb, options.up, options.unit);
  verb->add_option("--sky", options.sky,
                   "Picture of the surroundings, latitude by longitude, that lights the scene")
      ->type_name("FILE")
      ->check(CLI::ExistingFile);
  verb->add_flag("--binary", options.binary, "Geometry in mesh files, which load faster than obj files");
  verb->add_flag("--quiet", options.quiet, "Do not tell what was lost");
}

void AddRender(CLI::App& app, RenderOptions& options) {
  CLI::App* render = app.add_subcommand("render", "Render a scene folder, or a model, into its images");
  render->add_option("scene", options.scene, "Scene folder, or a model's file; may be left out with --resume")
      ->type_name("SCENE");
  render->add_option("--keep", options.model.keep, "Keep the scene that is made of a model in this folder")
      ->type_name("SCENE")
      ->check([](const std::string& text) { return std::string(text.empty() ? "a folder is missing" : ""); });
  render->parse_complete_callback([&options] {
    if (options.scene.empty() && options.resume.empty()) throw CLI::RequiredError("scene");
  });
  AddAxes(*render, options.model.up, options.model.unit);
  AddFrame(*render, options);
  AddKeeping(*render, options);
  AddServing(*render, options.serve);
  AddParts(*render, options);
  AddLayering(*render, options);
  render->add_flag("--quiet", options.quiet, "No report rows on the output stream");
  render->add_flag("--strict", options.strict,
                   "Render nothing and exit with 1 if 'zephlore check' would tell an error of the scene");
  render
      ->add_flag("--progress{line}", options.progress,
                 "One updating line on the error stream; --progress=json: an object a line, for programs")
      ->check(CLI::IsMember({"line", "json"}));
  render->add_flag("--preview", options.preview,
                   "Show the picture in a window while it renders; closing it ends the render");
}

void AddView(CLI::App& app, ViewOptions& options) {
  CLI::App* view =
      app.add_subcommand("view", "Turn a linear picture into a PNG or JPEG for the screen (sRGB)");
  view->add_option("input", options.input, "Picture of any format that the renderer reads")
      ->required()
      ->type_name("IN");
  view->add_option("output", options.output, "PNG or JPEG file")
      ->required()
      ->type_name("OUT.png|OUT.jpg")
      ->check([](const std::string& text) {
        return std::string(ScreenFormat(text).empty() ? "'" + text + "' does not end in .png or .jpg" : "");
      });
  view->add_option("--layer", options.layer, "Layer of an OpenEXR file; the beauty if not given")
      ->type_name("NAME");
  view->add_option("--white-balance", options.whiteBalance,
                   "Colour temperature of the light that shall be white")
      ->type_name("KELVIN")
      ->check(CLI::Range(1667, 25000));
  view->add_option_function<std::string>(
          "--curve", [&options](const std::string& word) { options.filmic = word == "filmic"; },
          "srgb, which cuts what is brighter than white, or filmic; srgb if not given")
      ->type_name("CURVE")
      ->check(CLI::IsMember({"srgb", "filmic"}));
  view->add_option("--exposure", options.exposure, "Stops: each doubles the brightness")
      ->type_name("STOPS")
      ->check([](const std::string& text) {
        double stops = 0;
        return std::string(CLI::detail::lexical_cast(text, stops) && std::isfinite(stops)
                               ? ""
                               : "'" + text + "' is no finite number");
      });
}

void AddCheck(CLI::App& app, CheckOptions& options) {
  CLI::App* check = app.add_subcommand("check", "Report what a scene folder says in vain; renders nothing");
  check->add_option("scene", options.scene, "Scene folder")->required()->type_name("SCENE");
  AddFormat(*check, options.format);
  check->add_flag("--json", options.json, "A JSON object for each finding, one a line");
}

// ", did you mean ...?" for the first word that names no verb or option but nearly does; empty without one.
std::string Suggestion(const CLI::App& app, int argc, char** argv) {
  std::vector<std::string_view> words;
  const std::vector<CLI::App*> verbs = app.get_subcommands();
  const std::vector<const CLI::App*> all = app.get_subcommands([](const CLI::App*) { return true; });
  if (verbs.empty() && !all.empty()) {
    for (const CLI::App* verb : all) words.push_back(verb->get_name());
    const std::string_view nearest = argc > 1 ? NearestWord(argv[1], words) : std::string_view();
    return nearest.empty() ? "" : ", did you mean '" + std::string(nearest) + "'?";
  }
  if (!verbs.empty() && argc > 1) {  // a verb's own verbs, and options
    const std::string hint = Suggestion(*verbs.front(), argc - 1, argv + 1);
    if (!hint.empty()) return hint;
  }
  for (const CLI::Option* option : app.get_options())
    for (const std::string& name : option->get_lnames()) words.push_back(name);
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; i++) {
    const std::string_view argument = argv[i];
    if (!argument.starts_with('-')) continue;
    const std::string_view name = argument.substr(std::min(argument.find_first_not_of('-'), argument.size()));
    const std::string_view nearest = NearestWord(name.substr(0, name.find('=')), words);
    if (!nearest.empty()) return ", did you mean '--" + std::string(nearest) + "'?";
  }
  return {};
}

// Memory that runs out within a parallel loop, where no handler outside can catch it.
[[noreturn]] void EndUncaught() {
  try {
    if (const std::exception_ptr reason = std::current_exception()) std::rethrow_exception(reason);
  } catch (const std::bad_alloc&) {
    Fail("not enough memory", kExitFailed, "no-memory");
    std::_Exit(CloseRunLog(kExitFailed));
  } catch (...) {
    std::abort();
  }
  std::abort();
}

int Run(int argc, char** argv) {
  RenderOptions renderOptions;
  CheckOptions checkOptions;
  ViewOptions viewOptions;
  MergeOptions mergeOptions;
  FarmOptions farmOptions;
  ImportOptions importOptions;
  NewOptions newOptions;
  CLI::App app("zephlore, a physically based offline renderer", "zephlore");
  app.set_version_flag("--version", "zephlore " ZP_VERSION);
  app.require_subcommand(1);
  AddRender(app, renderOptions);
  AddImport(app, importOptions);
  AddCheck(app, checkOptions);
  AddView(app, viewOptions);
  AddMerge(app, mergeOptions);
  AddFarm(app, farmOptions);
  AddNew(app, newOptions);
  AddPictureVerbs(app);
  if (argc > 1 && argv[1] == kCompleteWord) {
    DropReport();
    for (const std::string& word : Completions(app, {argv + 2, argv + argc}))
      std::printf("%s\n", word.c_str());
    return kExitDone;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      DropReport();
      return app.exit(error);
    }
    return Fail(error.what() + Suggestion(app, argc, argv) + " (see zephlore --help)", kExitUsage);
  }
  if (const std::optional<int> status = RunPictureVerb(app)) return *status;
  if (app.got_subcommand("merge")) return RunMerge(mergeOptions);
  if (app.got_subcommand("farm")) return RunFarm(farmOptions);
  if (app.got_subcommand("new")) return RunNew(newOptions);
  if (app.got_subcommand("check")) return RunCheck(checkOptions);
  if (app.got_subcommand("import")) return RunImport(importOptions);
  if (app.got_subcommand("view")) return RunView(viewOptions);
  std::error_code error;
  const bool isModel = std::filesystem::is_regular_file(renderOptions.scene, error);
  return isModel || !renderOptions.model.keep.empty() ? RunModelRender(renderOptions)
                                                      : RunRender(renderOptions);
}

}  // namespace
}  // namespace zp

int main(int argc, char** argv) {
  // A closed pipe and a file that grows too large are failed writes, told like others, and no deaths.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  zp::EnlargeStacks();
  // What large arrays leave behind goes back to the system, rather than into holes that nothing later fills.
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
  mallopt(M_TRIM_THRESHOLD, 16 << 20);
  std::set_terminate(zp::EndUncaught);
  zp::OpenRunLog(argc, argv);
  int status = 0;
  try {
    status = zp::Run(argc, argv);
  } catch (const std::bad_alloc&) {
    status = zp::Fail("not enough memory", zp::kExitFailed, "no-memory");
  } catch (const std::exception& error) {
    status = zp::Fail(error.what());
  }
  return zp::CloseRunLog(status);
}
