// core/large_array.h: arrays of many megabytes. Clearing their pages by four kilobytes at a time takes longer
// than filling them.

#pragma once

#include <cstddef>
#include <vector>

#include "core/pages.h"

namespace zp {

// Room for `count` elements in all, which come soon, in large pages where the system gives them.
template <class T, class Allocator>
void ReserveLarge(std::vector<T, Allocator>& array, std::size_t count) {
  array.reserve(count);
  FetchLargePages(array.data(), array.capacity() * sizeof(T));
}

template <class T>
std::vector<T> LargeArray(std::size_t count, T value = {}) {
  std::vector<T> array;
  ReserveLarge(array, count);
  array.resize(count, value);
  return array;
}

}  // namespace zp
