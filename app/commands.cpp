#include "commands.h"

#include <pthread.h>
#include <sys/resource.h>

#include <cstdlib>

namespace zp {
namespace {

constexpr std::size_t kStackBytes = 64UL << 20U;  // reserved, not used: pages come with the first touch
constexpr const char* kStackText = "64M";

}  // namespace

std::error_code DirectoryVisit::Enter(const std::filesystem::path& folder) {
  std::error_code error;
  if (folder.empty()) return error;
  std::filesystem::path here = std::filesystem::current_path(error);
  if (error) return error;
  std::filesystem::current_path(folder, error);
  if (!error && back.empty()) back = std::move(here);
  return error;
}

std::error_code DirectoryVisit::Leave() {
  std::error_code error;
  if (!back.empty()) std::filesystem::current_path(back, error);
  back.clear();
  return error;
}

void EnlargeStacks() {
  // The first thread's stack grows on demand up to the soft limit of the moment.
  rlimit limit{};
  if (getrlimit(RLIMIT_STACK, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      limit.rlim_cur < kStackBytes) {
    limit.rlim_cur =
        limit.rlim_max == RLIM_INFINITY || limit.rlim_max > kStackBytes ? kStackBytes : limit.rlim_max;
    setrlimit(RLIMIT_STACK, &limit);
  }
  // Workers: one OpenMP run-time reads this variable at its first use, the other has read it before main and,
  // when it was not set, takes the thread library's default instead. A caller's own choice wins.
  if (std::getenv("OMP_STACKSIZE") != nullptr) return;
  setenv("OMP_STACKSIZE", kStackText, 0);
  pthread_attr_t attributes;
  if (pthread_getattr_default_np(&attributes) != 0) return;
  std::size_t bytes = 0;
  if (pthread_attr_getstacksize(&attributes, &bytes) == 0 && bytes < kStackBytes &&
      pthread_attr_setstacksize(&attributes, kStackBytes) == 0)
    pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
}

}  // namespace zp
