#include "core/validate.h"

#include <cstdio>
#include <cstdlib>

namespace zp {

void RequireSound(std::string_view fault) {
  if (fault.empty()) return;
  std::fprintf(stderr, "not well formed: %.*s\n", static_cast<int>(fault.size()), fault.data());
  std::abort();
}

}  // namespace zp
