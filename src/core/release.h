// core/release.h: arrays that give their memory back, and arrays that do not write it before their owner
// does.

#pragma once

#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/pages.h"

namespace zp {

// Leaves new elements as they are, so that the pages of a large array come to the thread that first writes
// them.
template <class T>
struct RawAllocator {
  using value_type = T;
  RawAllocator() = default;
  template <class U>
  explicit RawAllocator(const RawAllocator<U>& /*other*/) {}
  T* allocate(std::size_t count) { return static_cast<T*>(AllocatePages(count * sizeof(T))); }
  void deallocate(T* place, std::size_t /*count*/) { std::free(place); }
  template <class U>
  void construct(U* /*place*/) {
    static_assert(std::is_trivially_copyable_v<U>);
  }
  template <class U, class... Values>
  void construct(U* place, Values&&... values) {
    std::construct_at(place, std::forward<Values>(values)...);
  }
  friend bool operator==(const RawAllocator& /*a*/, const RawAllocator& /*b*/) { return true; }
};
// resize() makes elements of no value.
template <class T>
using RawVector = std::vector<T, RawAllocator<T>>;

// Empties the array and frees it. Assigning {} would keep the storage: it reads as an empty list of elements.
template <class T, class Allocator>
void Release(std::vector<T, Allocator>& array) {
  std::vector<T, Allocator>().swap(array);
}

}  // namespace zp
