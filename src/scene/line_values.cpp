#include "scene/line_values.h"

#include <algorithm>
#include <charconv>
#include <locale>
#include <sstream>
#include <string>
#include <type_traits>

namespace zp {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsSign(char c) { return c == '-' || c == '+'; }

// False, and a failure, at the end of the line.
bool SkipBlanks(LineValues& values) {
  values.at = std::min(values.text.find_first_not_of(kBlanks, values.at), values.text.size());
  values.failed |= values.at == values.text.size();
  return !values.failed;
}

// The bytes that may belong to a number, taken one by one until one does not fit.
std::string_view TakeNumeral(LineValues& values, bool whole) {
  if (!SkipBlanks(values)) return {};
  const std::size_t begin = values.at;
  std::size_t& at = values.at;
  const auto next = [&] { return at < values.text.size() ? values.text[at] : '\0'; };
  if (IsSign(next())) ++at;
  bool digits = false, point = whole, exponent = whole;
  for (;; ++at) {
    const char c = next();
    if (IsDigit(c)) {
      digits = true;
    } else if (c == '.' && !point && !exponent) {
      point = true;
    } else if ((c == 'e' || c == 'E') && digits && !exponent) {
      exponent = true;
      if (at + 1 < values.text.size() && IsSign(values.text[at + 1])) ++at;
    } else {
      return values.text.substr(begin, at - begin);
    }
  }
}

// For what is beyond the range of its type, or so near to 0 that libraries differ on whether it is.
bool ReadByStream(std::string_view numeral, float& value) {
  std::istringstream stream{std::string(numeral)};
  stream.imbue(std::locale::classic());
  float read = 0;
  if (!(stream >> read)) return false;
  value = read;
  return true;
}

template <class T>
bool ReadNumeral(std::string_view numeral, T& value) {
  if (numeral.starts_with('+')) numeral.remove_prefix(1);
  const char* const end = numeral.data() + numeral.size();
  T read{};
  const auto result = std::from_chars(numeral.data(), end, read);
  if constexpr (std::is_floating_point_v<T>)
    if (result.ec == std::errc::result_out_of_range) return ReadByStream(numeral, value);
  if (result.ec != std::errc() || result.ptr != end) return false;
  value = read;
  return true;
}

template <class T>
bool Take(LineValues& values, T& value) {
  if (values.failed) return false;
  values.failed = !ReadNumeral(TakeNumeral(values, !std::is_floating_point_v<T>), value);
  return !values.failed;
}

}  // namespace

std::string_view TakeWord(LineValues& values) {
  if (values.failed || !SkipBlanks(values)) return {};
  const std::size_t begin = values.at;
  values.at = std::min(values.text.find_first_of(kBlanks, begin), values.text.size());
  return values.text.substr(begin, values.at - begin);
}

std::string_view TakeRest(LineValues& values) {
  if (values.failed || values.at == values.text.size()) return {};
  const std::string_view rest = values.Rest().substr(0, values.Rest().find('\0'));
  values.at = std::min(values.at + rest.size() + 1, values.text.size());
  return rest;
}

bool TakeNumber(LineValues& values, float& value) { return Take(values, value); }
bool TakeNumber(LineValues& values, std::int32_t& value) { return Take(values, value); }
bool TakeNumber(LineValues& values, std::int64_t& value) { return Take(values, value); }

// A minus sign turns the number around modulo 2^32.
bool TakeNumber(LineValues& values, std::uint32_t& value) {
  if (values.failed) return false;
  std::string_view numeral = TakeNumeral(values, true);
  const bool negative = numeral.starts_with('-');
  if (negative) numeral.remove_prefix(1);
  values.failed = !ReadNumeral(numeral, value);
  if (!values.failed && negative) value = 0U - value;
  return !values.failed;
}

}  // namespace zp
