// job/run_record.h: what became of a run, as it goes on: for reports, for lines of JSON, for who watches.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/console.h"
#include "integrator/integrator.h"
#include "job/checkpoint.h"
#include "job/scene_files.h"

namespace zp {

// Something that went wrong.
struct Message {
  TroubleKind severity = TroubleKind::kError;
  std::string code;       // words that never change: "image-unwritten"
  std::string text;       // one line
  std::string file = {};  // that it is about; empty without one
  int line = 0;           // in that file; 0 without one
  std::uint32_t count = 1;
};

// One camera's frame.
struct FrameRecord {
  FramePlan plan;
  std::string camera;               // its name
  std::uint32_t passes = 0;         // whole ones, those before a resume included
  std::uint32_t resumedPasses = 0;  // of these, by earlier runs
  double seconds = 0;               // spent on passes, by all runs
  std::uint64_t rays = 0;           // of this run, as what follows
  std::uint64_t photons = 0, storedPhotons = 0;
  FrameFaults faults;           // what limits have taken as means of its samples: TellFaults
  std::uint64_t held = 0;       // numbers of its file of layers that were too large for half floats
  std::optional<double> error;  // relative, where it is estimated
};

struct RunRecord {
  std::vector<std::string> words;  // of the command line
  std::string options;             // a JSON object of the program's own
  std::string scene;               // folder
  std::vector<SceneFile> files;
  std::int32_t format = 0;  // of the scene; 0 before it is known
  std::vector<FrameRecord> frames;
  std::vector<Message> warnings;  // and errors, alike ones once
  std::optional<Message> failure;
  int threads = 0;
  int status = 0;        // the process ends with it
  double startTime = 0;  // seconds since 1970
  double elapsed = 0;    // seconds
};

std::string_view SeverityText(TroubleKind kind);
// Adds it to those that came, or counts it.
void AddWarning(RunRecord& record, const Message& message);
// One line of JSON, without its end.
std::string MessageJson(const Message& message);
// The whole as JSON.
std::string ReportText(const RunRecord& record);
// Writes that, whole or not at all. The rest of a sentence that says why not, else empty.
std::string WriteReport(const std::string& path, const RunRecord& record);

}  // namespace zp
