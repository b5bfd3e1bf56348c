#include "import_run.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "core/stop.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

struct Pipe {
  int ends[2] = {-1, -1};

  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) ends[0] = ends[1] = -1;
  }
  ~Pipe() {
    CloseEnd(0);
    CloseEnd(1);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void CloseEnd(int end) {
    if (ends[end] >= 0) close(ends[end]);
    ends[end] = -1;
  }
};

// Appends what has come; false at the end.
bool Drain(int file, std::string& text) {
  char bytes[4096];
  const ssize_t got = read(file, bytes, sizeof bytes);
  if (got > 0) text.append(bytes, static_cast<std::size_t>(got));
  return got > 0 || (got < 0 && errno == EINTR);
}

// Beside this program, or where an installation has it.
std::string FindImporter() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const char* place : {"zephlore-import", "../libexec/zephlore/zephlore-import"}) {
    const fs::path path = (self / place).lexically_normal();
    if (access(path.c_str(), X_OK) == 0) return path.string();
  }
  return {};
}

constexpr const char* kSceneParts[] = {"shader",   "render", "light", "camera",
                                       "geometry", "model",  "image", "import.txt"};

// What a child says of itself before it ends badly.
std::string CrashText(const ImportWish& wish, int status, const std::string& output) {
  std::size_t file = 0;
  const std::size_t line = output.find_last_of('\n', output.size() < 2 ? 0 : output.size() - 2);
  const std::string last = line == std::string::npos ? output : output.substr(line + 1);
  std::from_chars(last.data(), last.data() + last.size(), file);
  const std::string name = wish.files[std::min(file, wish.files.size() - 1)];
  const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return "cannot import '" + name + "': " +
         (signal == SIGXCPU   ? "reading it takes too long, it may be damaged"
          : signal == SIGKILL ? "its reader was killed, maybe for want of memory"
                              : "its reader has crashed, it may be damaged");
}

}  // namespace

ScratchFolder::ScratchFolder(const fs::path& parent) {
  std::string name = ((parent.empty() ? fs::path(".") : parent) / ".zephlore-XXXXXX").string();
  if (mkdtemp(name.data()) != nullptr) path_ = name;
}

ScratchFolder::~ScratchFolder() {
  std::error_code error;
  if (!path_.empty()) fs::remove_all(path_, error);
}

std::optional<int> RunProgram(const std::vector<std::string>& words, std::string& output,
                              std::string& errors) {
  Pipe out, err;
  if (out.ends[0] < 0 || err.ends[0] < 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out.ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.ends[1], STDERR_FILENO);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int problem = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (problem != 0) return {};
  out.CloseEnd(1);
  err.CloseEnd(1);
  pollfd files[] = {{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}};
  while (files[0].fd >= 0 || files[1].fd >= 0) {
    constexpr int kInterval = 50;  // milliseconds
    poll(files, 2, kInterval);
    if (Stopping()) kill(child, SIGKILL);
    for (auto& [file, text] : {std::pair<pollfd&, std::string&>(files[0], output), {files[1], errors}})
      if (file.fd >= 0 && file.revents != 0 && !Drain(file.fd, text)) file.fd = -1;
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return {};
  return status;
}

std::string FillByImport(const ImportWish& wish, const fs::path& folder) {
  const std::string importer = FindImporter();
  if (importer.empty())
    return "models are read by the program zephlore-import, which is not there: install the package "
           "zephlore-import";
  for (const std::string& file : wish.files) {
    std::error_code error;
    if (!fs::exists(file, error)) return "there is no file '" + file + "'";
    if (!fs::is_regular_file(file, error)) return "cannot import '" + file + "': it is no file";
  }
  constexpr std::pair<const char*, const char*> kUnits[] = {
      {"m", "1"}, {"cm", "0.01"}, {"mm", "0.001"}, {"in", "0.0254"}};
  std::string unit = "1";
  for (const auto& [word, metres] : kUnits)
    if (wish.unit == word) unit = metres;
  std::vector<std::string> words = {importer,
                                    folder.string(),
                                    wish.stage ? "stage" : "plain",
                                    wish.binary ? "binary" : "text",
                                    wish.up.empty() ? "-" : wish.up,
                                    unit,
                                    wish.sky.empty() ? "-" : wish.sky};
  words.insert(words.end(), wish.files.begin(), wish.files.end());
  std::string output, errors;
  const std::optional<int> status = RunProgram(words, output, errors);
  if (Stopping()) return "stopped before anything was imported: nothing is written";
  if (!status) return "the program '" + importer + "' cannot be run";
  if (WIFEXITED(*status) && WEXITSTATUS(*status) == 0) return {};
  const std::string line = errors.substr(0, errors.find_last_not_of('\n') + 1);
  const bool told = WIFEXITED(*status) && line.find("cannot ") != std::string::npos;
  return told ? line.substr(line.find_last_of('\n') + 1) : CrashText(wish, *status, output);
}

fs::path SceneNamed(const std::string& option) {
  const fs::path path = option;
  return path.has_filename() ? path : path.parent_path();
}

std::string TargetObstacle(const fs::path& target, std::optional<bool> force) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(target, error);
  if (!fs::exists(status)) {
    const fs::path parent = target.parent_path();
    return parent.empty() || fs::is_directory(parent, error) ? ""
                                                             : "there is no folder '" + parent.string() + "'";
  }
  if (!force.value_or(false)) return force ? "it exists; --force replaces it" : "it exists";
  if (!fs::is_directory(status)) return "it is no folder";
  for (const fs::directory_entry& entry : fs::directory_iterator(target, error)) {
    const std::string name = entry.path().filename().string();
    if (std::find(std::begin(kSceneParts), std::end(kSceneParts), name) == std::end(kSceneParts))
      return "it holds '" + name + "', which no import has made: remove the folder yourself";
  }
  return error ? error.message() : "";
}

std::string MoveScene(const fs::path& made, const fs::path& target, bool force) {
  if (std::string obstacle = TargetObstacle(target, force); !obstacle.empty()) return obstacle;
  std::error_code error;
  const mode_t hidden = umask(0);
  umask(hidden);
  chmod(made.c_str(), 0777 & ~hidden);
  fs::path old;
  if (fs::exists(target, error)) {
    old = made.string() + "-old";
    fs::rename(target, old, error);
    if (error) return error.message();
  }
  fs::rename(made, target, error);
  if (error) {
    std::error_code back;
    if (!old.empty()) fs::rename(old, target, back);
    return error.message();
  }
  if (!old.empty()) fs::remove_all(old, error);
  return {};
}

}  // namespace zp
