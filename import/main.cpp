// zephlore-import: reads models of many formats in a process of its own, which may crash, and writes a scene
// folder. The program zephlore runs it; its words are not those of a command line for people.
//   zephlore-import FOLDER stage|plain text|binary y|z|- UNIT SKY|- FILE...
// Says on the output stream which file it is at, by a line with its number; a failing one is told in one line
// on the error stream, with status 1.

#include <sys/prctl.h>
#include <sys/resource.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/console.h"
#include "core/sanitizers.h"
#include "core/settings.h"
#include "imaging/imaging.h"
#include "model.h"
#include "shading/shading.h"
#include "write_scene.h"

namespace zp {
namespace {

constexpr int kFixedWords = 7;

int Tell(const std::string& sentence) {
  std::string line = sentence;
  for (char& c : line)
    if (static_cast<unsigned char>(c) < ' ') c = ' ';
  std::fprintf(stderr, "%s\n", line.c_str());
  return 1;
}

// What a damaged file makes of the readers ends here: they take neither all memory nor all time.
void LimitSelf(const std::vector<std::string>& files) {
  constexpr double kSeconds = 30, kSecondsOfMegabyte = 2;
  double megabytes = 0;
  std::error_code error;
  for (const std::string& file : files)
    if (const std::uintmax_t size = std::filesystem::file_size(file, error); !error)
      megabytes += static_cast<double>(size) * 1e-6;
  const auto seconds = static_cast<rlim_t>(kSeconds + kSecondsOfMegabyte * megabytes);
  const rlimit time = {seconds, seconds + 5}, core = {0, 0};  // SIGXCPU, which says why
  setrlimit(RLIMIT_CPU, &time);
  setrlimit(RLIMIT_CORE, &core);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const long pages = sysconf(_SC_PHYS_PAGES), size = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || size <= 0 || kIsSanitized) return;
  const rlim_t memory = static_cast<rlim_t>(pages) * static_cast<rlim_t>(size);
  const rlimit limit = {memory, memory};
  setrlimit(RLIMIT_AS, &limit);
}

std::vector<ImportModel> ReadAll(const std::vector<std::string>& files, const ReadSettings& settings) {
  std::vector<ImportModel> models;
  for (std::size_t i = 0; i < files.size(); ++i) {
    std::printf("%zu\n", i);
    std::fflush(stdout);
    try {
      models.push_back(ReadModel(files[i], settings));
    } catch (const nlohmann::json::exception&) {
      throw ImportError("cannot import '" + files[i] + "': its text does not say what glTF asks for");
    } catch (const std::bad_alloc&) {
      throw ImportError("cannot import '" + files[i] + "': not enough memory");
    } catch (const std::exception& error) {
      throw ImportError("cannot import '" + files[i] + "': " + error.what());
    }
  }
  return models;
}

int Run(const std::vector<std::string>& words) {
  WriteSettings write;
  write.folder = words[1];
  write.stage = words[2] == "stage";
  write.binary = words[3] == "binary";
  write.sky = words[6] == "-" ? "" : words[6];
  ReadSettings read;
  if (words[4] != "-") read.upIsZ = words[4] == "z";
  std::from_chars(words[5].data(), words[5].data() + words[5].size(), read.unit);
  const std::vector<std::string> files(words.begin() + kFixedWords, words.end());
  std::vector<ImportModel> models = ReadAll(files, read);
  try {
    WriteScene(models, write);
  } catch (const ImportError& error) {
    return Tell("cannot import '" + files.front() + (files.size() > 1 ? "' and others: " : "': ") +
                error.what());
  } catch (const std::filesystem::filesystem_error& error) {
    return Tell("cannot write the scene: " + error.code().message());
  }
  return 0;
}

}  // namespace
}  // namespace zp

int main(int argc, char** argv) {
  if (argc <= zp::kFixedWords) {
    std::fprintf(stderr, "zephlore-import is run by 'zephlore import'\n");
    return 2;
  }
  zp::LimitSelf({argv + zp::kFixedWords, argv + argc});
  zp::SetConsoleQuiet(true);
  zp::settings.format = 2;
  zp::StartImageFiles();
  zp::FindOrCreateShader(
      zp::kUndefinedShader);  // the first, as everywhere: mesh files name what comes behind it
  try {
    return zp::Run({argv, argv + argc});
  } catch (const std::exception& error) {
    return zp::Tell(error.what());
  }
}
