// core/large_array.h: arrays of many megabytes. Clearing their pages by four kilobytes at a time takes longer
// than filling them.

#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zp {

// Room for `count` elements in all, in large pages where the system gives them. A hint: refusal costs speed
// only.
template <class T>
void ReserveLarge(std::vector<T>& array, std::size_t count) {
  constexpr std::uintptr_t kLargePage = std::uintptr_t{2} << 20U;
  array.reserve(count);
  const auto begin = reinterpret_cast<std::uintptr_t>(array.data()),
             end = begin + array.capacity() * sizeof(T);
  const std::uintptr_t first = (begin + kLargePage - 1) / kLargePage * kLargePage;
  const std::uintptr_t last = end / kLargePage * kLargePage;
  if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

template <class T>
std::vector<T> LargeArray(std::size_t count, T value = {}) {
  std::vector<T> array;
  ReserveLarge(array, count);
  array.resize(count, value);
  return array;
}

}  // namespace zp
