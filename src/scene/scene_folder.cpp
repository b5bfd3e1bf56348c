#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "scene/blocks.h"
#include "scene/scene.h"
#include "scene/tokens.h"

namespace zp {

std::string sceneFolder;
std::vector<std::string> geometrySearchPaths;

namespace {

struct Section {
  std::string_view keyword;
  void (*read)(std::istream&);
};
constexpr Section kSections[] = {
    {"render", ReadRenderSection}, {"sky_light", ReadSkyLightSection},
    {"camera", ReadCameraSection}, {"geometry_light", ReadGeometryLightSection},
    {"object", ReadObjectSection}, {"shader", ReadShaderSection},
};

// The order of reading: a Shader comes before what refers to it.
constexpr std::string_view kSubfolders[] = {"shader", "render", "light", "camera", "geometry"};

void ReadSectionFolder(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.ends_with(".zp")) paths.push_back(folder + "/" + name);
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) ReadSceneFile(path);
}

}  // namespace

void ReadScene(std::istream& stream) {
  std::string text;
  while (ReadLine(stream, text)) {
    const Line line(text);
    for (const Section& section : kSections)
      if (line.keyword == section.keyword) section.read(stream);
  }
}

bool ReadSceneFile(const std::string& path) {
  std::ifstream stream(path);
  if (!stream) return false;
  ReadScene(stream);
  return true;
}

bool ReadSceneFolder(const std::string& folder) {
  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) return false;
  for (const std::string_view subfolder : kSubfolders)
    ReadSectionFolder(folder + "/" + std::string(subfolder));
  return true;
}

}  // namespace zp
