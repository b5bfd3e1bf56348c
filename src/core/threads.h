// core/threads.h: when a loop is worth more than one thread.

#pragma once

#include <cstddef>

namespace zp {

// A parallel region ends when its last thread has had its turn, which on a busy machine is a few milliseconds
// after the others have finished. Work of less than this stays on the thread that has it.
inline constexpr std::size_t kLeastParallelNanoseconds = 2'000'000;

// True if so many steps of about so many nanoseconds each should be shared out. For `if` clauses: regions of
// all threads or of one keep the run-time's threads alive, which others would end and start again.
constexpr bool IsWorthThreads(std::size_t steps, std::size_t nanosecondsEach) {
  return steps > kLeastParallelNanoseconds / nanosecondsEach;
}

}  // namespace zp
