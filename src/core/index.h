// core/index.h: signed indices, as records keep them, into tables.

#pragma once

#include <cassert>
#include <concepts>
#include <cstddef>
#include <iterator>

namespace zp {

// Whether the table has an entry of that index; never of a negative one.
template <class Table, std::integral Index>
constexpr bool IsIndex(const Table& table, Index index) {
  return static_cast<std::size_t>(index) < std::size(table);
}

// The entry of that index, which there must be.
template <class Table, std::integral Index>
constexpr decltype(auto) At(Table& table, Index index) {
  assert(IsIndex(table, index));
  return table[static_cast<std::size_t>(index)];
}

}  // namespace zp
