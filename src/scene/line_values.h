// scene/line_values.h: takes the values of one line by the rules of stream extraction in the classic locale.
// No stream is made for it: that would cost more than all else that is done with a line.

#pragma once

#include <cstdint>
#include <string_view>

namespace zp {

inline constexpr std::string_view kBlanks = " \t\r\n\v\f";

// The line's bytes, which live elsewhere, and how far they are read. What cannot be taken fails, and so does
// all that is asked for behind it.
struct LineValues {
  std::string_view text;
  std::size_t at = 0;  // of the next byte
  bool failed = false;

  std::string_view Rest() const { return text.substr(at); }
};

// Behind blanks, up to the next one; empty, and a failure, where there is nothing more.
std::string_view TakeWord(LineValues& values);
// All that is left, up to a zero byte, which goes too.
std::string_view TakeRest(LineValues& values);
// False, with `value` untouched, where there is no number or one that its type cannot hold. Only what looks
// like a number is used up; one too small for its type is 0.
bool TakeNumber(LineValues& values, float& value);
bool TakeNumber(LineValues& values, std::int32_t& value);
bool TakeNumber(LineValues& values, std::uint32_t& value);
bool TakeNumber(LineValues& values, std::int64_t& value);

}  // namespace zp
