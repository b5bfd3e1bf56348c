#include "scene/scene_writer.h"

#include <array>
#include <charconv>
#include <cmath>

namespace zp {
namespace {

void Begin(SceneWriter& writer, std::string_view keyword) {
  writer.text.append(4 * static_cast<std::size_t>(writer.depth), ' ');
  writer.text += keyword;
}

}  // namespace

void OpenBlock(SceneWriter& writer, std::string_view keyword) {
  WriteKeyword(writer, keyword);
  ++writer.depth;
}

void CloseBlock(SceneWriter& writer) {
  --writer.depth;
  WriteKeyword(writer, "end");
}

void WriteComment(SceneWriter& writer, std::string_view comment) {
  Begin(writer, "# ");
  for (const char c : comment) writer.text += c == '\n' || c == '\r' ? ' ' : c;
  writer.text += '\n';
}

void WriteKeyword(SceneWriter& writer, std::string_view keyword) {
  Begin(writer, keyword);
  writer.text += '\n';
}

void WriteWord(SceneWriter& writer, std::string_view keyword, std::string_view word) {
  Begin(writer, keyword);
  writer.text += ' ';
  writer.text += word;
  writer.text += '\n';
}

void WriteString(SceneWriter& writer, std::string_view keyword, std::string_view string) {
  Begin(writer, keyword);
  writer.text += " \"";
  for (const char c : string) writer.text += c == '"' || static_cast<unsigned char>(c) < ' ' ? '_' : c;
  writer.text += "\"\n";
}

void WriteNumbers(SceneWriter& writer, std::string_view keyword, std::span<const float> numbers) {
  Begin(writer, keyword);
  for (const float number : numbers) {
    writer.text += ' ';
    AppendNumber(writer.text, number);
  }
  writer.text += '\n';
}

void AppendNumber(std::string& text, float number) {
  std::array<char, 32> digits;
  const float value = std::isfinite(number) && number != 0 ? number : 0.0f;  // no "-0"
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  text.append(digits.data(), end);
}

std::string TokenOf(std::string_view name) {
  std::string token;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = byte > ' ' && byte != 0x7F && c != '"' && c != '/' && c != '\\' && c != '#';
    token += plain ? c : '_';
  }
  constexpr std::size_t kLongest = 80;  // bytes; names of files are made of it
  if (token.size() > kLongest) token.resize(kLongest);
  while (!token.empty() && (static_cast<unsigned char>(token.back()) & 0xC0U) == 0x80U &&
         token.size() == kLongest)
    token.pop_back();  // not in the midst of a character
  return token.empty() || token == "." || token == ".." ? "unnamed" : token;
}

}  // namespace zp
