// core/validate.h: how structures whose mistakes would only show as a wrong picture are checked as a whole:
// by tests and fuzz targets, and wherever one has been made by builds without NDEBUG. A validator stands in
// the folder of its structure; it changes nothing and takes time in proportion to what it looks at.

#pragma once

#include <string>
#include <string_view>

namespace zp {

#ifdef NDEBUG
inline constexpr bool kValidates = false;
#else
inline constexpr bool kValidates = true;
#endif

// The first thing that is wrong, with the index where it is; a validator returns the text, empty if all is
// sound.
struct Fault {
  std::string text;

  // Keeps the first fault. Returns `holds`, so that a check can end where more would leave an array.
  bool Require(bool holds, const char* what, std::size_t index = 0) {
    if (!holds && text.empty()) text = std::string(what) + ", at " + std::to_string(index);
    return holds;
  }
};

// Ends the process as a failed assertion does, with `fault` on standard error, unless that is empty.
void RequireSound(std::string_view fault);

}  // namespace zp
