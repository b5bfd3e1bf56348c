// bench/neighbour.h: other work on the machine, which takes its share of caches and memory while rays are
// timed.

#pragma once

#include <sys/types.h>

#include <vector>

namespace zp {

// Processes that stream through memory for as long as this lives, and no longer than the program does, even
// if it is killed.
class Neighbours {
 public:
  Neighbours() = default;
  ~Neighbours();
  Neighbours(const Neighbours&) = delete;
  Neighbours& operator=(const Neighbours&) = delete;

  // False if the system gives no process. To be called while the program has a single thread.
  bool Start(int count);

 private:
  std::vector<pid_t> processes_;
};

}  // namespace zp
