#include "core/pages.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace zp {

void* AllocatePages(std::size_t bytes) {
  constexpr std::size_t kLine = 64, kPage = 4096, kLargePage = std::size_t{2} << 20U;
  const std::size_t alignment = bytes >= kLargePage ? kLargePage : bytes >= kPage ? kPage : kLine;
  const std::size_t whole = (bytes + alignment - 1) / alignment * alignment;
  void* memory = std::aligned_alloc(alignment, whole);
  if (memory == nullptr) throw std::bad_alloc();
  // A hint: refusal costs speed only. What does not fill a large page shall not take one.
  madvise(memory, bytes / kLargePage * kLargePage, MADV_HUGEPAGE);
  return memory;
}

}  // namespace zp
