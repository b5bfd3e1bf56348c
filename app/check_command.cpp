// app/check_command.cpp: reads a scene and prints what the silent reader drops.

#include <stdlib.h>

#include <cstdio>

#include "commands.h"
#include "core/console.h"
#include "frame/frame.h"
#include "scene/check.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// An empty folder that lives as long as this does.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::error_code error;
    std::string pattern = (fs::temp_directory_path(error) / "zephlore-check-XXXXXX").string();
    if (!error && mkdtemp(pattern.data()) != nullptr) folder = pattern;
  }
  ~TemporaryFolder() {
    std::error_code error;
    if (!folder.empty()) fs::remove_all(folder, error);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  fs::path folder;  // empty: none could be made
};

// Listens to the reader while it lives.
class Observation {
 public:
  explicit Observation(SceneNotes& notes) { sceneNotes = &notes; }
  ~Observation() { sceneNotes = nullptr; }
  Observation(const Observation&) = delete;
  Observation& operator=(const Observation&) = delete;
};

// After Startup. Anything but kExitDone: the scene was not read.
int ReadScene(const std::string& scene, SceneNotes& notes) {
  DirectoryVisit visit;
  if (const std::error_code error = visit.Enter(scene))
    return Fail("cannot enter the scene folder '" + scene + "': " + error.message());
  {
    const Observation observation(notes);
    if (!LoadScene("./")) return Fail("cannot read the scene folder '" + scene + "'");
  }
  CheckRecords(notes);
  const TemporaryFolder scratch;
  if (scratch.folder.empty() || visit.Enter(scratch.folder))
    return Fail("there is no temporary folder to try image formats in");
  CheckOutputs(notes);
  if (const std::error_code error = visit.Leave())
    return Fail("cannot return to the current directory: " + error.message());
  return kExitDone;
}

// "1 error", "2 errors".
std::string Count(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// Scene text may hold anything: control characters would break the report's lines.
std::string Printable(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ' || c == 127) c = '?';
  return text;
}

// Every finding, as an editor can jump to it, and the sum of them.
int PrintFindings(const std::string& scene, const SceneNotes& notes) {
  std::size_t errors = 0;
  for (const Finding& finding : notes.findings) {
    const bool isError = finding.severity == Severity::kError;
    errors += isError;
    const std::string path = Printable((fs::path(scene) / finding.place.file).lexically_normal().string());
    std::printf("%s:%d: %s: %s\n", path.c_str(), finding.place.line, isError ? "error" : "warning",
                Printable(finding.text).c_str());
  }
  std::printf("%s, %s\n", Count(errors, "error").c_str(),
              Count(notes.findings.size() - errors, "warning").c_str());
  return errors > 0 ? kExitFailed : kExitDone;
}

}  // namespace

int RunCheck(const CheckOptions& options) {
  std::error_code error;
  if (!fs::is_directory(options.scene, error))
    return Fail("there is no scene folder '" + options.scene + "'");
  SetConsoleQuiet(true);
  Startup();
  SceneNotes notes;
  const int status = ReadScene(options.scene, notes);
  Shutdown();  // without Finalize, which would write images
  if (status != kExitDone) return status;
  SortFindings(notes);
  return PrintFindings(options.scene, notes);
}

}  // namespace zp
