#include "neighbour.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>

namespace zp {
namespace {

// Four times what the largest cache holds, so that nothing read is still there a pass later.
std::size_t StreamWords() {
  constexpr std::size_t kLeast = std::size_t{256} << 20U;
  const long cache = sysconf(_SC_LEVEL3_CACHE_SIZE);  // 0 or -1 where the system does not tell
  const std::size_t bytes = cache > 0 ? 4 * static_cast<std::size_t>(cache) : 0;
  return std::max(bytes, kLeast) / sizeof(std::uint64_t);
}

// Reads and writes the whole buffer, again and again.
[[noreturn]] void Stream(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(0);  // it went before it could be heeded
  const std::size_t words = StreamWords();
  void* memory = mmap(nullptr, words * sizeof(std::uint64_t), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) _exit(1);
  auto* const buffer = static_cast<std::uint64_t*>(memory);
  for (;;) {
    for (std::size_t i = 0; i < words; ++i) buffer[i] += i;
    asm volatile("" ::: "memory");  // each pass is a pass
  }
}

}  // namespace

bool Neighbours::Start(int count) {
  const pid_t parent = getpid();
  for (int i = 0; i < count; ++i) {
    const pid_t process = fork();
    if (process < 0) return false;
    if (process == 0) Stream(parent);
    processes_.push_back(process);
  }
  return true;
}

Neighbours::~Neighbours() {
  for (const pid_t process : processes_) kill(process, SIGKILL);
  for (const pid_t process : processes_) waitpid(process, nullptr, 0);
}

}  // namespace zp
