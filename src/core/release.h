// core/release.h: arrays that give their memory back, and arrays that do not write it before their owner
// does.

#pragma once

#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace zp {

// Leaves new elements as they are: pages of a large array come to the thread that first writes them.
template <class T>
struct RawAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = RawAllocator<U>;
  };
  template <class U>
  void construct(U* /*place*/) {
    static_assert(std::is_trivially_copyable_v<U>);
  }
  template <class U, class... Values>
  void construct(U* place, Values&&... values) {
    std::construct_at(place, std::forward<Values>(values)...);
  }
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
