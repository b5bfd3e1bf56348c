// A main for fuzz targets in builds without libFuzzer: runs the target on every file of the folders given,
// then on random mixtures of them, for some seconds or a number of runs. Five seconds of processor time for
// one input, or 1 GB of memory, end the run as a crash does; the input at hand then is kept.
//   TARGET FOLDER... [seconds=N | runs=N] [seed=N]

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* kCrashFile = "crash-input";
constexpr itimerval kMostTime = {{0, 0}, {5, 0}};
constexpr long kMostMemory = 1L << 20U;  // kilobytes
const Bytes* current = nullptr;

// Only calls that a signal handler may make.
extern "C" void KeepInput(int signal) {
  const int file = open(kCrashFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (file >= 0 && current) {
    const ssize_t written = write(file, current->data(), current->size());
    static_cast<void>(written);
    close(file);
  }
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

rusage Usage() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage;
}

double ProcessorSeconds() {
  const rusage usage = Usage();
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void Run(const Bytes& input) {
  // A copy of exactly this size: a read past its end is one past the allocation.
  const Bytes copy(input.begin(), input.end());
  current = &copy;
  setitimer(ITIMER_PROF, &kMostTime, nullptr);
  LLVMFuzzerTestOneInput(copy.data(), copy.size());
  zp::Require(Usage().ru_maxrss < kMostMemory, __LINE__);
  current = nullptr;
}

std::vector<Bytes> ReadFolders(const std::vector<std::string>& folders) {
  std::vector<fs::path> paths;
  for (const std::string& folder : folders)
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
      if (entry.is_regular_file()) paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());  // one seed, one run
  std::vector<Bytes> inputs;
  for (const fs::path& path : paths) {
    std::ifstream stream(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  return inputs;
}

// Changes a few bytes, cuts, repeats, or splices in a piece of another input.
void Mutate(Bytes& input, const std::vector<Bytes>& corpus, std::mt19937& random) {
  const auto below = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
  };
  const auto place = [&](std::size_t limit) {
    return input.begin() + static_cast<std::ptrdiff_t>(below(limit));
  };
  constexpr std::uint8_t kTelling[] = {0, 1, 2, 0x7F, 0x80, 0xFF, '\n', ' ', '#', '"', '-', '.', '9', 'e'};
  const std::size_t changes = 1 + below(4);
  for (std::size_t i = 0; i < changes; ++i) {
    if (input.empty()) input.push_back(static_cast<std::uint8_t>(below(256)));
    switch (below(6)) {
      case 0:
        *place(input.size()) ^= static_cast<std::uint8_t>(1U << below(8));
        break;
      case 1:
        *place(input.size()) = kTelling[below(std::size(kTelling))];
        break;
      case 2:
        *place(input.size()) = static_cast<std::uint8_t>(below(256));
        break;
      case 3:
        input.resize(below(input.size() + 1));
        break;
      case 4: {
        const std::size_t begin = below(input.size());
        const std::size_t length = std::min<std::size_t>(1 + below(8), input.size() - begin);
        input.erase(input.begin() + static_cast<std::ptrdiff_t>(begin),
                    input.begin() + static_cast<std::ptrdiff_t>(begin + length));
        break;
      }
      default: {
        const Bytes& other = corpus[below(corpus.size())];
        if (other.empty()) break;
        const std::size_t begin = below(other.size());
        const std::size_t length = 1 + below(std::min<std::size_t>(64, other.size() - begin));
        const Bytes piece(other.begin() + static_cast<std::ptrdiff_t>(begin),
                          other.begin() + static_cast<std::ptrdiff_t>(begin + length));
        input.insert(place(input.size() + 1), piece.begin(), piece.end());
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 2;
  std::size_t most = 0;  // 0: as many as the seconds allow
  unsigned seed = 1;
  std::vector<std::string> folders;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.starts_with("seconds="))
      seconds = std::strtod(argument.c_str() + 8, nullptr);
    else if (argument.starts_with("runs="))
      most = std::strtoull(argument.c_str() + 5, nullptr, 10);
    else if (argument.starts_with("seed="))
      seed = static_cast<unsigned>(std::strtoul(argument.c_str() + 5, nullptr, 10));
    else
      folders.push_back(argument);
  }
  const std::vector<Bytes> corpus = ReadFolders(folders);
  if (corpus.empty()) {
    std::fprintf(stderr, "no inputs\n");
    return 1;
  }
  for (const int signal : {SIGABRT, SIGSEGV, SIGFPE, SIGILL, SIGPROF}) std::signal(signal, KeepInput);
  for (const Bytes& input : corpus) Run(input);
  std::mt19937 random(seed);
  std::size_t runs = 0;
  const double begin = ProcessorSeconds();
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (; most > 0 ? runs < most : std::chrono::steady_clock::now() < end; ++runs) {
    Bytes input = corpus[random() % corpus.size()];
    Mutate(input, corpus, random);
    Run(input);
  }
  std::printf("%zu inputs of the corpus, %zu mixtures, %.0f a second of processor time\n", corpus.size(),
              runs, static_cast<double>(runs) / (ProcessorSeconds() - begin));
  return 0;
}
