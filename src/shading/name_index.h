// shading/name_index.h: finds records by name in a table that grows. The first of equal names counts.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/index.h"
#include "core/ray.h"

namespace zp {

// Takes in records that were appended when it is asked next. A record whose name has changed has to be told.
template <class Record>
class NameIndex {
 public:
  // kNone without one. nameOf(record) is a std::string.
  template <class NameOf>
  std::int32_t Find(const std::vector<Record>& table, std::string_view name, NameOf nameOf) {
    // A table that was made anew shows by its size or its last name.
    if (known_ > table.size() || (known_ > 0 && last_ && nameOf(table[known_ - 1]) != *last_)) Forget();
    TakeIn(table, nameOf);
    auto found = first_.find(name);
    if (found != first_.end() &&
        (!IsIndex(table, found->second) || nameOf(At(table, found->second)) != name)) {
      Forget();  // it was renamed, and a later one of its old name may have become the first
      TakeIn(table, nameOf);
      found = first_.find(name);
    }
    return found == first_.end() ? kNone : found->second;
  }
  void Renamed(std::size_t index) {
    if (index >= known_) return;
    known_ = index;
    last_.reset();
  }
  void Forget() {
    first_.clear();
    known_ = 0;
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  };

  template <class NameOf>
  void TakeIn(const std::vector<Record>& table, NameOf nameOf) {
    for (; known_ < table.size(); ++known_) {
      const auto index = static_cast<std::int32_t>(known_);
      const auto [place, isNew] = first_.try_emplace(nameOf(table[known_]), index);
      if (!isNew) place->second = std::min(place->second, index);
      last_ = nameOf(table[known_]);
    }
  }

  std::unordered_map<std::string, std::int32_t, Hash, std::equal_to<>> first_;
  std::size_t known_ = 0;            // records that were taken in
  std::optional<std::string> last_;  // name of the last of them
};

}  // namespace zp
