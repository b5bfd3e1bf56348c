// core/format.h: the choice of the format, by whose rules a scene is read and rendered. What the two formats
// do differently stands where it is done.

#pragma once

#include <string>
#include <string_view>

#include "core/settings.h"

namespace zp {

// Why the last format that scene text asked for is none; empty if all is well. Whoever reads a scene tells
// it.
inline std::string formatProblem;

// The format that a word asks for, 1 or 2; 0 if there is none of that name.
inline std::int32_t FormatOf(std::string_view word) { return word == "1" ? 1 : word == "2" ? 2 : 0; }
inline std::string NoFormatText(std::string_view word) {
  return '\'' + std::string(word) + "' is no format: there are 1 and 2";
}

// The format that the environment variable ZP_FORMAT asks for. 1 where it is not set or empty, and where it
// names none, which is told in `problem`.
std::int32_t FormatOfEnvironment(std::string& problem);
// Scene text asks for a format. The last one counts; one that there is not leaves format 1.
void AskForFormat(std::string_view word);

}  // namespace zp
