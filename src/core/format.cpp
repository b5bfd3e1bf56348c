#include "core/format.h"

#include <cstdlib>

namespace zp {

std::int32_t FormatOfEnvironment(std::string& problem) {
  const char* const word = std::getenv("ZP_FORMAT");
  if (word == nullptr || *word == '\0') return 1;
  const std::int32_t format = FormatOf(word);
  if (format == 0) problem = "ZP_FORMAT: " + NoFormatText(word);
  return format == 0 ? 1 : format;
}

void AskForFormat(std::string_view word) {
  if (settings.formatIsSettled) return;
  const std::int32_t format = FormatOf(word);
  settings.format = format == 0 ? 1 : format;
  formatProblem = format == 0 ? "format: " + NoFormatText(word) : "";
}

}  // namespace zp
