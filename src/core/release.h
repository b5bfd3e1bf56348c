// core/release.h: arrays that give their memory back.

#pragma once

#include <vector>

namespace zp {

// Empties the array and frees it. Assigning {} would keep the storage: it reads as an empty list of elements.
template <class T>
void Release(std::vector<T>& array) {
  std::vector<T>().swap(array);
}

}  // namespace zp
