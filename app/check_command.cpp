// app/check_command.cpp: reads a scene and prints what the silent reader drops.

#include <stdlib.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "core/console.h"
#include "core/format.h"
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

// As an editor can jump to it.
void PrintText(const std::string& scene, const Finding& finding) {
  const FindingRow& row = RowOf(finding.code);
  std::string hint;
  if (!finding.suggestion.empty())
    hint = (row.advises ? "; write \"" : "; did you mean \"") + finding.suggestion +
           (row.advises ? "\"" : "\"?");
  std::printf("%s:%d: %s: %s\n", Printable(FindingPath(scene, finding)).c_str(), finding.place.line,
              std::string(SeverityWord(row.severity)).c_str(), Printable(finding.text + hint).c_str());
}

// Bytes that are no UTF-8 become U+FFFD.
void PrintJson(const std::string& scene, const Finding& finding) {
  nlohmann::ordered_json line;
  line["code"] = RowOf(finding.code).word;
  line["severity"] = SeverityWord(RowOf(finding.code).severity);
  line["file"] = FindingPath(scene, finding);
  line["line"] = finding.place.line;
  line["text"] = finding.text;
  line["suggestion"] = finding.suggestion;
  std::printf("%s\n", line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

int PrintFindings(const CheckOptions& options, const std::vector<Finding>& findings) {
  std::size_t counts[3] = {};
  for (const Finding& finding : findings) {
    ++counts[static_cast<std::size_t>(RowOf(finding.code).severity)];
    if (options.json)
      PrintJson(options.scene, finding);
    else
      PrintText(options.scene, finding);
  }
  const auto count = [&](Severity severity) {
    return Count(counts[static_cast<std::size_t>(severity)], std::string(SeverityWord(severity)));
  };
  const std::size_t notes = counts[static_cast<std::size_t>(Severity::kNote)];
  if (!options.json)
    std::printf("%s, %s%s\n", count(Severity::kError).c_str(), count(Severity::kWarning).c_str(),
                notes == 0 ? "" : (", " + count(Severity::kNote)).c_str());
  return counts[static_cast<std::size_t>(Severity::kError)] > 0 ? kExitFailed : kExitDone;
}

}  // namespace

bool LoadCheckedScene(std::vector<Finding>& findings) {
  SceneNotes notes;
  {
    const Observation observation(notes);
    if (!LoadScene("./")) {
      Fail("cannot read the scene folder");
      return false;
    }
  }
  CheckRecords(notes);
  const TemporaryFolder scratch;
  DirectoryVisit visit;
  if (scratch.folder.empty() || visit.Enter(scratch.folder)) {
    Fail("there is no temporary folder to try image formats in");
    return false;
  }
  CheckOutputs(notes);
  if (const std::error_code error = visit.Leave()) {
    Fail("cannot return to the scene folder: " + error.message());
    return false;
  }
  SortFindings(notes);
  findings = std::move(notes.findings);
  return true;
}

std::string FindingPath(const std::string& scene, const Finding& finding) {
  return (fs::path(scene) / finding.place.file).lexically_normal().string();
}

int RunCheck(const CheckOptions& options) {
  std::error_code error;
  if (!fs::is_directory(options.scene, error))
    return Fail("there is no scene folder '" + options.scene + "'");
  if (std::string problem; !options.format && FormatOfEnvironment(problem) > 0 && !problem.empty())
    return Fail(problem);
  SetConsoleQuiet(true);
  Startup({}, options.format);
  DirectoryVisit visit;
  std::vector<Finding> findings;
  error = visit.Enter(options.scene);
  const bool read = !error && LoadCheckedScene(findings);
  Shutdown();  // without Finalize, which would write images
  if (error) return Fail("cannot enter the scene folder '" + options.scene + "': " + error.message());
  return read ? PrintFindings(options, findings) : kExitFailed;
}

}  // namespace zp
