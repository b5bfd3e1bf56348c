// app/new_command.cpp: copies a scene that the build has put into the program.

#include "new_command.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

#include "commands.h"
#include "scene_templates.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// The first folder of each path.
std::set<std::string> TemplateNames() {
  std::set<std::string> names;
  for (const EmbeddedFile& file : kSceneTemplates)
    names.insert(std::string(file.path.substr(0, file.path.find('/'))));
  return names;
}

// Empty, or why not all of it was written.
std::string WriteBytes(const fs::path& path, std::string_view bytes) {
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  if (error) return error.message();
  errno = 0;
  std::FILE* file = std::fopen(path.c_str(), "wbx");
  if (file == nullptr) return std::strerror(errno);
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  const int reason = errno;
  if (std::fclose(file) == 0 && written) return {};
  return std::strerror(written ? errno : reason);
}

// As a shell takes it for one word.
std::string Quoted(const std::string& word) {
  if (word.find_first_of(" \t\n'\"\\$`&|;<>()*?[]#~!{}") == word.npos) return word;
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

void AddNew(CLI::App& app, NewOptions& options) {
  CLI::App* verb = app.add_subcommand("new", "Make a scene folder to begin with, which renders at once");
  verb->add_option("folder", options.folder, "Folder to make")
      ->required()
      ->type_name("NAME")
      ->check([](const std::string& text) { return std::string(text.empty() ? "a name is missing" : ""); });
  verb->add_option("--template", options.scenery,
                   "Still life under lamps, house in the sun, room with a window, or a model from all sides; "
                   "studio if not given")
      ->type_name("TEMPLATE")
      ->check(CLI::IsMember(TemplateNames()));
}

int RunNew(const NewOptions& options) {
  const fs::path folder = fs::path(options.folder + "/").parent_path();  // without slashes at its end
  std::error_code error;
  if (fs::symlink_status(folder, error).type() != fs::file_type::not_found)
    return Fail("there is '" + options.folder + "' already");
  if (folder.has_parent_path()) fs::create_directories(folder.parent_path(), error);
  // Of two programs that make it at the same time one fails here.
  if (!fs::create_directory(folder, error))
    return Fail("cannot make the folder '" + options.folder + "': " + error.message());
  for (const EmbeddedFile& file : kSceneTemplates) {
    const std::size_t slash = file.path.find('/');
    if (file.path.substr(0, slash) != options.scenery) continue;
    const fs::path path = folder / file.path.substr(slash + 1);
    if (const std::string reason = WriteBytes(path, file.content); !reason.empty()) {
      fs::remove_all(folder, error);
      return Fail("cannot write '" + path.string() + "': " + reason);
    }
  }
  const std::string name = Quoted(folder.string());
  std::printf("%s is there: a scene after the template %s. To render it:\n\n", name.c_str(),
              options.scenery.c_str());
  std::printf("  zephlore render %s --output %s\n", name.c_str(),
              Quoted(folder.filename().string() + ".png").c_str());
  return kExitDone;
}

}  // namespace zp
