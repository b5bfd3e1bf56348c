// app/commands.h: what the program's commands do once their words are understood.
// Each command returns an exit status and explains a failing one in one line on the error stream.

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scene/notes.h"

namespace zp {

enum ExitStatus : int {
  kExitDone = 0,
  kExitFailed = 1,  // the command was understood, but its result could not be made
  kExitUsage = 2,
};

struct Region {
  std::int32_t left = 0, top = 0, right = 0, bottom = 0;  // pixels; right and bottom lie one behind the last
};

// The page that shows a render to browsers.
struct ServeOptions {
  std::optional<std::int32_t> port;  // none: there is no page
  std::string address;               // empty: the machine's own
  std::string tokenFile;             // whose first line browsers give; empty: see ZEPHLORE_SERVE_TOKEN
  bool after = false;                // goes on behind the last pass, until somebody closes it
};

struct Passes {
  std::int32_t begin = 0, end = 0;  // the latter is one behind the last
};

// What may be said of a scene that is a model's file.
struct ModelOptions {
  std::string keep;      // folder of the scene that it becomes; empty: none stays
  std::string up, unit;  // as in ImportOptions
};

// Anything unset is left as the scene has it.
struct RenderOptions {
  std::string scene;   // folder
  std::string output;  // beauty image, relative to the caller's directory; empty: as in the scene
  std::string camera;  // name, number from 0, or "all"; empty: the first one
  std::optional<std::int32_t> sample;  // passes
  std::optional<std::int32_t> width, height;
  std::optional<Region> region;
  std::optional<std::int32_t> threads;
  std::optional<std::uint64_t> seed;
  std::optional<std::int32_t> format;  // of the rules, whatever the scene says
  bool quiet = false;
  std::string progress;  // how the error stream shows how far it is, "line" or "json"; empty: not at all
  bool preview = false;  // a window shows the picture; closing it ends the render
  bool linear = false;   // files of 8 bits keep numbers, in format 2 too
  bool strict = false;   // kExitFailed, before the first pass, if a check of the scene finds an error
  std::optional<double> saveEvery;  // seconds between two saves of all images while they render; 0: none
  std::string checkpoint;           // file that keeps what is rendered; empty: none
  std::string resume;               // checkpoint to go on from, and to keep
  std::optional<double> time;       // seconds that the frame may take
  ServeOptions serve;
  ModelOptions model;
  std::optional<Passes> passes;  // those of a part of the frame; it has no images but with `output`
  bool varyPhotons = false;      // parts cast photons of their own
  std::string report;            // JSON file that tells what became of the run; empty: none
  std::optional<double> noise;   // relative error that ends the frame; 0 never
  std::vector<std::string> aov;  // layers beside those of the scene: words of imaging/frame_layers.h
  bool aovNearest = false;       // layers of what was hit are those of one sample of each pixel
  bool floats = false;           // files of layers hold 32 bits throughout
  bool layers = false;           // the frame has layers, whatever its images: of a checkpoint
  bool groups = false;           // and those of light groups
  bool denoise = false;          // the finished picture loses its noise
  bool denoiseLayers = false;    // the file has the layers that this needs
  bool transparentSky = false;   // the picture leaves out what the camera sees of the sky
};
int RunRender(const RenderOptions& options);

// Renders a model, with what it needs to be seen: of the options, `scene` is its file.
int RunModelRender(const RenderOptions& options);

struct ImportOptions {
  std::vector<std::string> files;
  std::string output;    // scene folder
  bool force = false;    // in place of one that is there
  std::string up, unit;  // of files that do not tell them; empty: as their format has it, metres
  std::string sky;       // picture around the scene; empty: none
  bool binary = false;   // geometry as bytes
  bool quiet = false;
};
int RunImport(const ImportOptions& options);

struct MergeOptions {
  std::string output;              // beauty image, or a checkpoint if the name ends in .zpc
  std::vector<std::string> parts;  // checkpoints
  bool partial = false;            // passes may be missing
  bool linear = false;             // as in RenderOptions
  bool quiet = false;
};
int RunMerge(const MergeOptions& options);

struct FarmOptions {
  RenderOptions render;    // with an output
  std::int32_t parts = 1;  // jobs that share the passes
  bool wait = false;       // until the images are there
  bool print = false;      // the scripts, which nobody runs
};
int RunFarm(const FarmOptions& options);

struct ViewOptions {
  std::string input;
  std::string output;                  // a PNG or JPEG file
  std::string layer;                   // name; empty: the beauty, or what comes first
  double exposure = 0;                 // stops
  std::optional<double> whiteBalance;  // kelvin
  bool filmic = false;                 // rolls off what is bright
};
int RunView(const ViewOptions& options);
// ".png" or ".jpg", by the end of the name; empty for other names.
std::string ScreenFormat(const std::string& name);

struct CheckOptions {
  std::string scene;                   // folder
  bool json = false;                   // an object a line instead of text, and no sum
  std::optional<std::int32_t> format;  // of the rules, whatever the scene says
};
// Prints a line for each finding and their sum on the output stream; kExitFailed if one of them is an error.
int RunCheck(const CheckOptions& options);
// Reads the scene of the current directory, with `findings` in order. False where it fails, which it says.
bool LoadCheckedScene(std::vector<Finding>& findings);
// The file of a finding, as the caller of a command finds it.
std::string FindingPath(const std::string& scene, const Finding& finding);

// Prints the one line of a failing command and returns `status`. Line ends inside the message become blanks.
//   code  for programs; without it "usage" or "failed", by the status
int Fail(std::string_view message, ExitStatus status = kExitFailed, std::string_view code = {});

// Makes `folder` the current directory until it goes out of scope or Leave is called.
class DirectoryVisit {
 public:
  DirectoryVisit() = default;
  ~DirectoryVisit() { Leave(); }
  DirectoryVisit(const DirectoryVisit&) = delete;
  DirectoryVisit& operator=(const DirectoryVisit&) = delete;

  // An empty folder is the current one. On an error the directory stays as it was.
  std::error_code Enter(const std::filesystem::path& folder);
  std::error_code Leave();

 private:
  std::filesystem::path back;
};

// Deep paths need deep stacks: a ray at the depth limit has 255 callers of its own kind. Must run before the
// first parallel region.
void EnlargeStacks();

}  // namespace zp
