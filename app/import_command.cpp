// app/import_command.cpp: files of other programs become a scene folder.

#include <cstdio>
#include <fstream>
#include <iterator>

#include "commands.h"
#include "import_run.h"
#include "stop_signals.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

std::string NotesOf(const fs::path& scene) {
  std::ifstream stream(scene / "import.txt");
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

int RunImport(const ImportOptions& options) {
  const fs::path target = SceneNamed(options.output);
  const auto refuse = [&](const std::string& reason) {
    return Fail("cannot write the scene '" + options.output + "': " + reason);
  };
  if (const std::string obstacle = TargetObstacle(target, options.force); !obstacle.empty())
    return refuse(obstacle);
  StopOnSignals();
  const ScratchFolder scratch(target.parent_path());
  if (scratch.Path().empty()) return refuse("its folder cannot be written to");
  const ImportWish wish = {options.files, options.up, options.unit, options.sky, options.binary, false};
  if (const std::string reason = FillByImport(wish, scratch.Path()); !reason.empty()) return Fail(reason);
  if (const std::string reason = MoveScene(scratch.Path(), target, options.force); !reason.empty())
    return refuse(reason);
  if (!options.quiet) std::fputs(NotesOf(target).c_str(), stdout);
  return kExitDone;
}

}  // namespace zp
