// app/farm_command.cpp: a frame in parts, by jobs of Slurm. What they do stands in app/slurm/; files in a
// folder beside the picture tell how far they are.

#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "camera_choice.h"
#include "commands.h"
#include "core/console.h"
#include "core/settings.h"
#include "frame/frame.h"
#include "imaging/output_file.h"
#include "resume.h"
#include "slurm_scripts.h"

namespace zp {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

// One word of the shell's, whatever is in it.
std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? "'\\''" : std::string(1, c);
  return quoted + "'";
}

std::string Absolute(const std::string& name) { return fs::absolute(name).lexically_normal().string(); }

struct Farm {
  RenderOptions render;  // with sample and seed
  std::int32_t parts = 1;
  std::string folder;  // of parts, scripts and states
};

// What parts are told of the frame, as words of the shell.
std::string RenderWords(const RenderOptions& render) {
  std::string words;
  const auto add = [&](const char* name, const std::string& value) {
    words += (words.empty() ? "" : " ") + std::string(name) + " " + Quote(value);
  };
  add("--sample", std::to_string(*render.sample));
  add("--seed", std::to_string(*render.seed));
  if (render.width) add("--resolution", std::to_string(*render.width) + "x" + std::to_string(*render.height));
  if (const auto& box = render.region)
    add("--region", std::to_string(box->left) + "," + std::to_string(box->top) + "," +
                        std::to_string(box->right) + "," + std::to_string(box->bottom));
  if (render.threads) add("--threads", std::to_string(*render.threads));
  if (render.format) add("--format", std::to_string(*render.format));
  if (render.saveEvery) add("--save-every", std::to_string(*render.saveEvery));
  if (!render.camera.empty()) add("--camera", render.camera);
  if (render.linear) words += " --linear";
  if (render.varyPhotons) words += " --vary-photons";
  return words;
}

// The template with the farm's values in the place of its @WORDS@.
std::string FillScript(std::string_view script, const Farm& farm) {
  const RenderOptions& render = farm.render;
  const std::pair<std::string_view, std::string> values[] = {
      {"LAST", std::to_string(farm.parts - 1)},
      {"PARTS", std::to_string(farm.parts)},
      {"SAMPLE", std::to_string(*render.sample)},
      {"PROCESSORS",
       render.threads ? "--cpus-per-task=" + std::to_string(*render.threads) : std::string("--exclusive")},
      {"PROGRAM", Quote(fs::read_symlink("/proc/self/exe").string())},
      {"SCENE", Quote(Absolute(render.scene))},
      {"FOLDER", Quote(farm.folder)},
      {"CALLER", Quote(fs::current_path().string())},
      {"OUTPUT", Quote(render.output)},
      {"OPTIONS", RenderWords(render)},
      {"MERGE_OPTIONS", render.linear ? "--linear" : ""}};
  std::string filled;
  while (!script.empty()) {
    const std::size_t at = std::min(script.find('@'), script.size());
    filled += script.substr(0, at);
    script.remove_prefix(at);
    const std::size_t end = script.find('@', 1);
    if (end == script.npos) return filled += script;
    const auto* row = std::find_if(std::begin(values), std::end(values), [&](const auto& value) {
      return value.first == script.substr(1, end - 1);
    });
    filled += row == std::end(values) ? "@" : row->second;
    script.remove_prefix(row == std::end(values) ? 1 : end + 1);
  }
  return filled;
}

// Passes that the camera in question plans in the scene; 0 with a reason.
std::int32_t PlannedPasses(const RenderOptions& render, std::string& reason) {
  SetConsoleQuiet(true);
  Startup({}, render.format);
  DirectoryVisit visit;
  const std::error_code error = visit.Enter(render.scene);
  const bool loaded = !error && LoadScene("./");
  const std::vector<std::size_t> chosen = loaded ? ChooseCameras(render.camera) : std::vector<std::size_t>();
  std::int32_t sample = 0;
  if (error || !loaded)
    reason = "cannot read the scene folder '" + render.scene + "'";
  else if (chosen.empty() || chosen[0] >= cameras.size())
    reason = "there is no camera '" + render.camera + "' in the scene '" + render.scene + "'";
  else
    sample = std::clamp(cameras[chosen[0]].sample, 1, kMostSamples);
  Shutdown();  // without Finalize, which would write images
  return sample;
}

std::string ReadLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string WriteText(const fs::path& path, const std::string& text) {
  OutputFile file;
  if (std::string reason = file.Open(path); !reason.empty()) return reason;
  file.Write(text.data(), text.size());
  if (std::string reason = file.Trouble(); !reason.empty()) return reason;
  return file.Commit();
}

struct Told {
  int status = -1;
  std::string text;  // all that the command printed
};
Told RunShell(const std::string& command) {
  Told told;
  std::fflush(nullptr);
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return told;
  char block[512];
  for (std::size_t got = 0; (got = std::fread(block, 1, sizeof block, pipe)) > 0;)
    told.text.append(block, got);
  told.status = pclose(pipe);
  while (!told.text.empty() && std::isspace(static_cast<unsigned char>(told.text.back())))
    told.text.pop_back();
  return told;
}

// Whether any of the jobs, "12" or "12,13", waits or runs; yes where Slurm does not answer.
bool AreQueued(const std::string& jobs) {
  const Told told = RunShell("squeue -h -o %i -j " + jobs);
  return told.status == 0 ? !told.text.empty() : told.text.find("Invalid job id") == told.text.npos;
}

// Takes the folder for this farm: one of the same words goes on with its seed and its parts. The sentence
// that says why not; else empty.
std::string TakeFolder(Farm& farm) {
  const fs::path folder = farm.folder, file = folder / "plan.json";
  const bool goesOn = fs::exists(file);
  const Json kept = goesOn ? Json::parse(std::ifstream(file), nullptr, false) : Json::object();
  if (!farm.render.seed && kept.is_object() && kept.contains("seed"))
    farm.render.seed = kept["seed"].get<std::uint64_t>();
  if (!farm.render.seed) farm.render.seed = DrawSeed();
  Json plan = Json::parse(KeptOptions(farm.render));
  plan["parts"] = farm.parts;
  plan["vary-photons"] = farm.render.varyPhotons;
  if (goesOn && kept != plan)
    return "'" + farm.folder + "' holds parts of another farm: remove it, or name another --output";
  if (const std::string jobs = ReadLine(folder / "jobs"); !jobs.empty() && AreQueued(jobs))
    return "its jobs " + jobs + " are still queued (scancel ends them)";
  std::error_code error;
  fs::create_directory(folder, error);
  if (error) return "cannot make the folder '" + farm.folder + "': " + error.message();
  for (const fs::directory_entry& entry : fs::directory_iterator(folder))
    if (const std::string name = entry.path().filename();
        name.starts_with("state-") || name.starts_with("failures-"))
      fs::remove(entry.path(), error);
  for (const auto& [name, text] : {std::pair<const char*, std::string>{"part.sh", FillScript(kPartSh, farm)},
                                   {"merge.sh", FillScript(kMergeSh, farm)},
                                   {"plan.json", plan.dump()}})
    if (const std::string reason = WriteText(folder / name, text); !reason.empty())
      return "cannot write '" + (folder / name).string() + "': " + reason;
  return {};
}

// The number of the job, or empty with what Slurm says.
std::string SubmitScript(const Farm& farm, const std::string& name, const std::string& options,
                         std::string& trouble) {
  const Told told = RunShell("sbatch --parsable --chdir=" + Quote(farm.folder) + " " + options +
                             Quote(farm.folder + "/" + name));
  const std::size_t digits = told.text.find_first_not_of("0123456789");
  if (told.status == 0 && digits != 0 && !told.text.empty()) return told.text.substr(0, digits);
  trouble = told.text.empty() ? "sbatch failed" : told.text;
  return {};
}

// The number of the last job of the two; empty with a reason.
int Submit(const Farm& farm, std::string& jobs) {
  std::string trouble;
  const std::string parts = SubmitScript(farm, "part.sh", "", trouble);
  if (parts.empty()) return Fail("cannot submit the parts: " + trouble + " (--print shows the scripts)");
  const std::string merge = SubmitScript(
      farm, "merge.sh", "--dependency=afterok:" + parts + " --kill-on-invalid-dep=yes ", trouble);
  if (merge.empty()) {
    RunShell("scancel " + parts);
    return Fail("cannot submit the merge: " + trouble);
  }
  jobs = parts + "," + merge;
  if (const std::string reason = WriteText(farm.folder + "/jobs", jobs + "\n"); !reason.empty())
    return Fail("cannot write '" + farm.folder + "/jobs': " + reason);
  std::printf("%d parts are job %s, their merge is job %s\n", farm.parts, parts.c_str(), merge.c_str());
  std::fflush(stdout);
  return kExitDone;
}

// The last thing that the program has said in a log, as the end of a sentence.
std::string LastWords(const std::string& log) {
  std::ifstream file(log);
  std::string words;
  constexpr std::string_view kName = "zephlore: ";
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(kName)) words = ": " + line.substr(kName.size());
  return words + " (see '" + log + "')";
}

// Waits for the merge, or for a part that has failed for good.
int Wait(const Farm& farm, const std::string& jobs) {
  constexpr int kPatience = 5;  // shared folders show files late
  int done = -1, absent = 0;
  while (true) {
    int now = 0;
    std::string unfinished;
    for (std::int32_t i = 0; i < farm.parts; ++i) {
      const std::string number = std::to_string(i), log = farm.folder + "/part-" + number + ".log";
      const std::string state = ReadLine(farm.folder + "/state-" + number);
      if (state == "failed") return Fail("part " + number + " has failed" + LastWords(log));
      if (state == "done") ++now;
      if (state != "done" && unfinished.empty())
        unfinished = "part " + number + " is not finished" + LastWords(log);
    }
    if (now != done) std::printf("%d of %d parts are done\n", now, farm.parts);
    done = now;
    std::fflush(stdout);
    const std::string log = farm.folder + "/merge.log", merge = ReadLine(farm.folder + "/state-merge");
    if (merge == "done") return kExitDone;
    if (merge == "failed") return Fail("the merge has failed" + LastWords(log));
    absent = AreQueued(jobs) ? 0 : absent + 1;
    if (absent >= kPatience)
      return Fail("the jobs " + jobs +
                  " have left the queue: " + (unfinished.empty() ? "the merge did not run" : unfinished));
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
}

}  // namespace

int RunFarm(const FarmOptions& options) {
  Farm farm = {options.render, options.parts, Absolute(options.render.output) + ".farm"};
  std::error_code error;
  if (farm.render.camera == kAllCameras) return Fail("farm renders one camera, not all", kExitUsage);
  if (!fs::is_directory(farm.render.scene, error))
    return Fail("there is no scene folder '" + farm.render.scene + "'");
  std::string reason;
  if (!farm.render.sample) farm.render.sample = PlannedPasses(farm.render, reason);
  if (!reason.empty()) return Fail(reason);
  if (farm.parts > *farm.render.sample)
    return Fail("there are more parts than passes, of which there are " +
                std::to_string(*farm.render.sample));
  if (options.print) {
    if (!farm.render.seed) farm.render.seed = DrawSeed();
    std::printf("# part.sh\n%s\n# merge.sh\n%s", FillScript(kPartSh, farm).c_str(),
                FillScript(kMergeSh, farm).c_str());
    return kExitDone;
  }
  if (reason = TakeFolder(farm); !reason.empty()) return Fail(reason);
  std::string jobs;
  if (const int status = Submit(farm, jobs); status != kExitDone) return status;
  return options.wait ? Wait(farm, jobs) : kExitDone;
}

}  // namespace zp
