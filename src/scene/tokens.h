// scene/tokens.h: the token rules that every block of scene text obeys. A line is a keyword and its values;
// blocks end with the line "end". What cannot be read leaves its target alone, in silence.

#pragma once

#include <istream>
#include <limits>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>

#include "core/vec.h"

namespace zp {

inline constexpr std::streamsize kSceneLineLimit = 4096;  // bytes; a line of this length or more is dropped

// The next line without its line feed. False at the end of the stream, or when it can be read no further.
inline bool ReadLine(std::istream& stream, std::string& text) {
  char buffer[kSceneLineLimit];
  for (;;) {
    if (!stream.good()) return false;
    stream.getline(buffer, kSceneLineLimit);
    if (stream.bad()) return false;
    if (!stream.fail()) {
      text.assign(buffer, static_cast<std::size_t>(stream.gcount() - (stream.eof() ? 0 : 1)));
      return true;
    }
    if (stream.eof()) return false;
    stream.clear();
    stream.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
}

// One line: its keyword, empty if there is none, and what follows it.
struct Line {
  std::string keyword;
  std::istringstream values;

  explicit Line(const std::string& text) : values(text) {
    values.imbue(std::locale::classic());
    if (!text.empty() && text.front() != '#') values >> keyword;
  }
};

// After a number that cannot be read, none of the line is.
template <class T>
void ReadNumber(Line& line, T& target) {
  T value{};
  if (line.values >> value) target = value;
}
inline void ReadTriple(Line& line, Vec3& target) {
  for (int i = 0; i < 3; ++i) ReadNumber(line, target[i]);
}
inline void ReadMatrix(Line& line, Mat3& target) {
  for (auto& row : target.m)
    for (float& entry : row) ReadNumber(line, entry);
}
inline void ReadMatrix(Line& line, Mat4& target) {
  for (auto& row : target.m)
    for (float& entry : row) ReadNumber(line, entry);
}
inline void ReadWord(Line& line, std::string& target) {
  std::string word;
  if (line.values >> word) target = word;
}

// The characters between the first two quotes, or behind a lone one; empty without any.
inline std::string ReadString(Line& line) {
  std::string rest, value;
  std::getline(line.values, rest, '\0');
  const std::size_t open = rest.find('"');
  if (open == std::string::npos) return {};
  return rest.substr(open + 1, rest.find('"', open + 1) - open - 1);
}

// Hands each line with a keyword to `handle` (void(std::string_view keyword, Line&)), which may itself read a
// nested block from the stream. Ends behind the line "end" or with the stream.
template <class Handler>
void ReadBlock(std::istream& stream, Handler&& handle) {
  std::string text;
  while (ReadLine(stream, text)) {
    Line line(text);
    if (line.keyword == "end") return;
    if (!line.keyword.empty()) handle(std::string_view(line.keyword), line);
  }
}

}  // namespace zp
