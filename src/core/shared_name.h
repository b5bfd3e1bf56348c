// core/shared_name.h: a name that many records have, kept once. Set by one thread at a time.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zp {

class SharedName {
 public:
  SharedName() = default;  // empty
  SharedName& operator=(std::string_view name);
  const std::string& Text() const;  // empty once all names are forgotten
  friend bool operator==(const SharedName& a, std::string_view b) { return a.Text() == b; }

 private:
  std::uint32_t number_ = 0;
};

// When no record has one any more.
void ForgetSharedNames();

}  // namespace zp
