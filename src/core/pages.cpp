#include "core/pages.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "core/threads.h"

namespace zp {
namespace {

constexpr std::size_t kLargePage = std::size_t{2} << 20U;

}  // namespace

void* AllocatePages(std::size_t bytes) {
  constexpr std::size_t kLine = 64, kPage = 4096;
  const std::size_t alignment = bytes >= kLargePage ? kLargePage : bytes >= kPage ? kPage : kLine;
  const std::size_t whole = (bytes + alignment - 1) / alignment * alignment;
  void* memory = std::aligned_alloc(alignment, whole);
  if (memory == nullptr) throw std::bad_alloc();
  // A hint: refusal costs speed only. What does not fill a large page shall not take one.
  madvise(memory, bytes / kLargePage * kLargePage, MADV_HUGEPAGE);
  return memory;
}

void FetchLargePages(void* begin, std::size_t bytes) {
  const auto address = reinterpret_cast<std::uintptr_t>(begin);
  const std::uintptr_t first = (address + kLargePage - 1) / kLargePage * kLargePage;
  const std::uintptr_t last = (address + bytes) / kLargePage * kLargePage;
  if (first >= last) return;
  madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
  const std::size_t pages = (last - first) / kLargePage;
#pragma omp parallel for schedule(static) if (IsWorthThreads(pages, 200'000))
  for (std::size_t i = 0; i < pages; ++i)
    madvise(reinterpret_cast<void*>(first + i * kLargePage), kLargePage, MADV_POPULATE_WRITE);
}

}  // namespace zp
