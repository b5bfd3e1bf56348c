// app/import_run.h: models become scene folders, by the program zephlore-import, which reads them in a
// process of its own: whatever their files make of it, this one goes on.

#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace zp {

struct ImportWish {
  std::vector<std::string> files;
  std::string up;    // "y", "z" or empty: as the format has it
  std::string unit;  // "m", "cm", "mm" or "in"
  std::string sky;   // a picture; empty: none
  bool binary = false;
  bool stage = false;  // what a model without lights needs to be seen
};

// The folder that an option names, with a slash behind it or without.
std::filesystem::path SceneNamed(const std::string& option);

// A folder that is made beside a path, of a name that nobody has, and goes with all in it unless it is moved
// away.
class ScratchFolder {
 public:
  // Empty where none could be made.
  explicit ScratchFolder(const std::filesystem::path& parent);
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Fills the folder, which is empty. Why it did not, as a whole sentence; empty if it did.
std::string FillByImport(const ImportWish& wish, const std::filesystem::path& folder);

// Runs a program, of which the first word is the path, until it ends or all work is to stop; what it prints
// on the two streams is appended. Its wait status, or none if it could not be run.
std::optional<int> RunProgram(const std::vector<std::string>& words, std::string& output,
                              std::string& errors);

// Moves the finished folder to its name. With `force` a scene that stands there goes first: refused if the
// folder holds what no scene does. The rest of a sentence why not; empty if it is done.
std::string MoveScene(const std::filesystem::path& made, const std::filesystem::path& target, bool force);
// The same question before anything is made.
//   force  empty: there is no such option
std::string TargetObstacle(const std::filesystem::path& target, std::optional<bool> force = {});

}  // namespace zp
