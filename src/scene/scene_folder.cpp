#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "core/files.h"
#include "core/progress.h"
#include "core/settings.h"
#include "core/stop.h"
#include "scene/blocks.h"
#include "scene/scene.h"

namespace zp {

std::string sceneFolder;
std::vector<std::string> geometrySearchPaths;

namespace {

struct Section {
  std::string_view keyword;
  void (*read)(SceneText&);
};
constexpr Section kSections[] = {
    {"render", ReadRenderSection},
    {"sky_light", ReadSkyLightSection},
    {"geometry_light", ReadGeometryLightSection},
    {"camera", ReadCameraSection},
    {"point_light", ReadPointLightSection},
    {"parallel_light", ReadParallelLightSection},
    {"object", ReadObjectSection},
    {"shader", ReadShaderSection},
};

const Section* FindSection(std::string_view keyword) {
  for (const Section& section : kSections)
    if (keyword == section.keyword) return &section;
  return nullptr;
}

// The order of reading: a Shader comes before what refers to it.
constexpr std::string_view kSubfolders[] = {"shader", "render", "light", "camera", "geometry"};

bool ReadFile(const std::string& path);

// Those of a subfolder of the scene, in the order of their names.
std::vector<std::string> TextFiles(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.ends_with(".zp")) paths.push_back(folder + "/" + name);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

// Lines of a file that stand in no section, for the observer.
struct StrayLines {
  bool noted = false;  // one finding for all lines up to the next section
  int depth = 0;       // blocks that they seem to open
};

// A stray "end" shows that an earlier one closed too much: the latest that is in doubt.
void NoteStrayEnd(SceneText& text, StrayLines& stray) {
  if (stray.depth > 0) {
    --stray.depth;
  } else if (!text.doubtfulEnds.empty()) {
    const DoubtfulEnd& end = text.doubtfulEnds.back();
    Note(text.Place(end.line), FindingCode::kEarlyEnd, end.text);
    text.doubtfulEnds.pop_back();
  } else if (!stray.noted) {
    Note(text.Here(), FindingCode::kEarlyEnd, "\"end\" closes nothing: one before it closed too much");
  }
}

void NoteStrayLine(SceneText& text, const Line& line, StrayLines& stray) {
  if (line.keyword.empty() || line.keyword.front() == '#') return;
  if (line.keyword == "end") return NoteStrayEnd(text, stray);
  if (RestOfLine(line).empty()) ++stray.depth;
  if (stray.noted) return;
  stray.noted = true;
  std::vector<std::string_view> words;
  for (const Section& section : kSections) words.push_back(section.keyword);
  Note(text.Here(), FindingCode::kUnknownSection,
       Quoted(line.keyword) + " is no section: lines are skipped up to the next one",
       NearestWord(line.keyword, words));
}

void ReadText(SceneText& text) {
  std::string content;
  StrayLines stray;
  while (ReadLine(text, content)) {
    Line line(text, content);
    const auto* section = FindSection(line.keyword);
    if (section) {
      stray = {};
      section->read(text);
    } else if (text.notes) {
      NoteStrayLine(text, line, stray);
    }
  }
  if (text.notes && text.stream.bad())
    Note(text.Here(), FindingCode::kUnreadableFile, "the file cannot be read further");
}

bool ReadFile(const std::string& path) {
  NoteRead(path);
  std::ifstream stream(path);
  if (!stream) {
    Note({path, 0}, FindingCode::kUnreadableFile, "cannot be opened");
    return false;
  }
  SceneText text = {stream, sceneNotes, path};
  ReadText(text);
  return true;
}

// Files that look like scene text where nobody reads it.
void NoteUnreadFiles(const std::string& folder) {
  namespace fs = std::filesystem;
  const auto holdsText = [](const fs::path& path) {
    std::error_code error;
    for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator();
         entry.increment(error))
      if (entry->path().extension() == ".zp") return true;
    return false;
  };
  std::error_code error;
  for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    const std::string path = folder + "/" + name;
    if (std::find(std::begin(kSubfolders), std::end(kSubfolders), name) != std::end(kSubfolders)) continue;
    if (entry->is_directory(error) ? holdsText(path) : name.ends_with(".zp"))
      Note({path, 0}, FindingCode::kUnreadFile,
           "is not read: scene text stands in the folders shader, render, light, camera and geometry");
  }
}

}  // namespace

bool IsSectionKeyword(std::string_view keyword) { return FindSection(keyword) != nullptr; }

void ReadScene(std::istream& stream) {
  SceneText text = {stream, sceneNotes};
  ReadText(text);
  ReadNamedModels();
}

bool ReadSceneFile(const std::string& path) {
  const bool opened = ReadFile(path);
  ReadNamedModels();
  return opened;
}

std::string ScenePath(const std::string& name) {
  if (name.empty()) return name;
  std::error_code error;
  const std::string inScene = (std::filesystem::path(sceneFolder) / name).string();
  const std::string& first = settings.format >= 2 ? inScene : name;
  const std::string& second = settings.format >= 2 ? name : inScene;
  if (std::filesystem::exists(first, error)) return first;
  return std::filesystem::exists(second, error) ? second : name;
}

std::string SceneImageFolder() {
  const bool joins = settings.format >= 2 && !sceneFolder.empty() && !sceneFolder.ends_with('/');
  return sceneFolder + (joins ? "/image" : "image");
}

bool ReadSceneFolder(const std::string& folder) {
  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) return false;
  std::vector<std::string> paths;
  for (const std::string_view subfolder : kSubfolders)
    for (std::string& path : TextFiles(folder + "/" + std::string(subfolder)))
      paths.push_back(std::move(path));
  BeginWork(Phase::kReading, paths.size());
  for (const std::string& path : paths) {
    if (!Stopping()) ReadFile(path);
    FinishWork(Phase::kReading);
  }
  ReadNamedModels();
  if (sceneNotes) NoteUnreadFiles(folder);
  return true;
}

}  // namespace zp
