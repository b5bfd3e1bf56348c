#include "core/shared_name.h"

#include <deque>
#include <unordered_map>

namespace zp {
namespace {

std::deque<std::string> names = {""};  // whose places never move
std::unordered_map<std::string_view, std::uint32_t> numbers;

}  // namespace

SharedName& SharedName::operator=(std::string_view name) {
  if (name == Text()) return *this;
  const auto known = numbers.find(name);
  number_ = known != numbers.end() ? known->second : static_cast<std::uint32_t>(names.size());
  if (known == numbers.end()) numbers.emplace(names.emplace_back(name), number_);
  return *this;
}

const std::string& SharedName::Text() const { return names[number_ < names.size() ? number_ : 0]; }

void ForgetSharedNames() {
  numbers.clear();
  names.resize(1);
}

}  // namespace zp
