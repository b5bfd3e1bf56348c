// imaging/preview.cpp: finds the module with the window when one is asked for.

#include "imaging/preview.h"

#include <dlfcn.h>
#include <link.h>

#include <filesystem>
#include <string_view>

#include "core/console.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// Of the program or library that holds this code; empty if it cannot be told.
fs::path OwnFolder() {
  static const char here = 0;
  Dl_info info = {};
  link_map* map = nullptr;
  if (dladdr1(&here, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0) return {};
  const bool isProgram = map == nullptr || *map->l_name == '\0';
  std::error_code error;
  return fs::canonical(isProgram ? "/proc/self/exe" : map->l_name, error).parent_path();
}

// In a build all is in one folder. Installed, the module is in a folder beside the library;
// other hosts of the core, as the module for Python, find it where this build is installed.
const PreviewWindow* LoadWindow(std::string& obstacle) {
  const fs::path folder = OwnFolder();
  obstacle = "the window is not installed (it is in the package zephlore-preview)";
  for (const char* place : {".", "zephlore", ZP_PROGRAM_TO_MODULES, ZP_MODULES}) {
    const fs::path file = folder / place / "zephlore-preview.so";
    std::error_code error;
    if (folder.empty() || !fs::exists(file, error)) continue;
    void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);  // for good: the window library cannot end
    void* entry = module == nullptr ? nullptr : dlsym(module, "zephlorePreviewWindow");
    if (entry == nullptr) {
      obstacle = "the window cannot be loaded: " + std::string(dlerror());
      return nullptr;
    }
    const auto* window = reinterpret_cast<const PreviewWindow* (*)()>(entry)();
    if (window->version == std::string_view(ZP_VERSION)) return window;
    obstacle =
        "the window is of version " + std::string(window->version) + ", and this is version " ZP_VERSION;
    return nullptr;
  }
  return nullptr;
}

const PreviewWindow* previewWindow = nullptr;  // null until one has been found

}  // namespace

std::string PreviewObstacle(int width, int height) {
  std::string obstacle;
  if (previewWindow == nullptr) previewWindow = LoadWindow(obstacle);
  return previewWindow == nullptr ? obstacle : previewWindow->obstacle(width, height);
}

void RunPreview(const Preview& preview) {
  Preview guarded = preview;
  guarded.lost = [&preview] {
    PrintFatal("the preview window was lost; saving the picture as it is", {"preview-lost"});
    try {
      preview.lost();
    } catch (...) {
      PrintFatal("the picture could not be saved", {"preview-unsaved"});
    }
  };
  if (previewWindow != nullptr) previewWindow->run(guarded);
}

}  // namespace zp
