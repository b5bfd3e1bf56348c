// scene/tokens.h: the token rules that every block of scene text obeys. A line is a keyword and its values;
// blocks end with the line "end". What cannot be read leaves its target alone, in silence, unless an observer
// is there: then every function here also tells it what was lost.

#pragma once

#include <initializer_list>
#include <istream>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/stop.h"
#include "core/vec.h"
#include "core/words.h"
#include "scene/line_values.h"
#include "scene/notes.h"

namespace zp {

inline constexpr std::streamsize kSceneLineLimit = 4096;  // bytes; a line of this length or more is dropped

inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // some editors begin a file with it

// An "end" that may have closed more than it was meant to.
struct DoubtfulEnd {
  int line = 0;
  std::string text;
};

// Scene text on its way in, and where it is being read.
struct SceneText {
  std::istream& stream;
  SceneNotes* notes = nullptr;  // as sceneNotes stood when the text was opened
  std::string file = {};
  int line = 0;  // number of the last line read
  std::vector<DoubtfulEnd> doubtfulEnds = {};

  TextPlace Place(int number) const { return {file, number}; }
  TextPlace Here() const { return {file, line}; }
};

// The next line without its line feed. False at the end of the stream, when it can be read no further, or
// once all is to stop.
inline bool ReadLine(SceneText& text, std::string& content) {
  char buffer[kSceneLineLimit];
  std::istream& stream = text.stream;
  for (;;) {
    if (!stream.good() || Stopping()) return false;
    stream.getline(buffer, kSceneLineLimit);
    if (stream.bad()) return false;
    if (!stream.fail()) {
      content.assign(buffer, static_cast<std::size_t>(stream.gcount() - (stream.eof() ? 0 : 1)));
      if (++text.line == 1 && content.starts_with(kByteOrderMark)) content.erase(0, kByteOrderMark.size());
      return true;
    }
    if (stream.eof()) return false;
    ++text.line;
    if (text.notes) Note(text.Here(), FindingCode::kLongLine, "a line of 4096 bytes or more is dropped");
    stream.clear();
    stream.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
}

// One line: its keyword, empty if there is none, and what follows it. The content outlives it.
struct Line {
  std::string keyword;
  LineValues values;
  SceneText& text;
  int number;          // of the line
  bool noted = false;  // one finding a line is enough

  Line(SceneText& from, const std::string& content) : values{content}, text(from), number(from.line) {
    if (!content.starts_with('#')) keyword = TakeWord(values);
  }
  TextPlace Place() const { return text.Place(number); }
};

// For the observer, and only called when it is there.
void NoteLine(Line& line, FindingCode code, const std::string& message, std::string_view suggestion = {});
std::string_view RestOfLine(const Line& line);  // without leading blanks
// After an attempt to read a number at `rest`, the line's rest before it.
void NoteNumber(Line& line, std::string_view rest);
void NoteString(Line& line, std::string_view rest);
void NoteName(Line& line, NameKind kind, const std::string& name);
// Of a line that was read: it does nothing. True, for a handler to end with; the observer may be missing.
enum class IdleIn { kAll, kFormat1 };
bool NoteIdle(Line& line, bool isDefault, IdleIn formats = IdleIn::kAll);

// The readers of values return true, so that a handler can end with them: it knew its keyword.

// False if there is no number here. After one that cannot be read, none of the line is.
template <class T>
bool ReadValue(Line& line, T& value) {
  if (!line.text.notes) return TakeNumber(line.values, value);
  const std::string_view rest = RestOfLine(line);
  const bool read = TakeNumber(line.values, value);
  NoteNumber(line, rest);
  return read;
}

template <class T>
bool ReadNumber(Line& line, T& target) {
  T value{};
  if (ReadValue(line, value)) target = value;
  return true;
}
// What was no number has not been said.
template <class T>
bool ReadNumber(Line& line, std::optional<T>& target) {
  T value{};
  if (ReadValue(line, value)) target = value;
  return true;
}
inline bool ReadTriple(Line& line, Vec3& target) {
  for (int i = 0; i < 3; ++i) ReadNumber(line, target[i]);
  return true;
}
template <class Matrix>
bool ReadMatrix(Line& line, Matrix& target) {
  for (auto& row : target.m)
    for (float& entry : row) ReadNumber(line, entry);
  return true;
}
inline bool ReadWord(Line& line, std::string& target) {
  const std::string word(TakeWord(line.values));
  if (!word.empty()) target = word;
  if (line.text.notes && word.empty()) NoteLine(line, FindingCode::kMissingValue, "a word is missing");
  if (line.text.notes && word.find('"') != word.npos)
    NoteLine(line, FindingCode::kQuotedWord, "the quotes become part of the word " + word);
  return true;
}

// The characters between the first two quotes, or behind a lone one; empty without any.
inline std::string ReadString(Line& line) {
  const std::string_view rest = TakeRest(line.values);
  if (line.text.notes) NoteString(line, rest);
  const std::size_t open = rest.find('"');
  if (open == rest.npos) return {};
  return std::string(rest.substr(open + 1, rest.find('"', open + 1) - open - 1));
}
inline bool ReadString(Line& line, std::string& target) {
  target = ReadString(line);
  return true;
}
// A string that names something outside its block.
inline std::string ReadName(Line& line, NameKind kind) {
  std::string name = ReadString(line);
  if (line.text.notes) NoteName(line, kind, name);
  return name;
}
inline bool ReadName(Line& line, NameKind kind, std::string& target) {
  target = ReadName(line, kind);
  return true;
}

// A string out of a list of words; another one leaves the target alone.
template <class Value>
struct Choice {
  std::string_view word;
  Value value;
};
template <class Value, std::size_t kCount>
bool ReadChoice(Line& line, const Choice<Value> (&choices)[kCount], Value& target) {
  const std::string word = ReadString(line);
  for (const Choice<Value>& choice : choices)
    if (word == choice.word) {
      target = choice.value;
      return true;
    }
  if (!line.text.notes) return true;
  std::vector<std::string_view> words;
  for (const Choice<Value>& choice : choices) words.push_back(choice.word);
  NoteLine(line, FindingCode::kUnknownWord, "unknown word " + Quoted(word), NearestWord(word, words));
  return true;
}

// A block that is being read. Keeps for the observer what it needs to judge the block's end.
struct OpenBlock {
  std::string_view name;
  int line = 0;                   // that opened it
  std::vector<std::string> seen;  // keywords
  std::string opener;             // the last unknown keyword that may have been meant to open a block
  int openerLine = 0;
  std::vector<std::string_view> asked;  // what the line's keyword was compared with
};

// The first word of a line. While an observer is there it keeps what it is compared with: where nothing was
// equal, that is all that the block knows.
class Keyword {
 public:
  Keyword(std::string_view text, std::vector<std::string_view>* record) : word(text), asked(record) {}
  operator std::string_view() const { return word; }
  friend bool operator==(const Keyword& keyword, std::string_view other) {
    if (keyword.asked) keyword.asked->push_back(other);
    return keyword.word == other;
  }

 private:
  std::string_view word;
  std::vector<std::string_view>* asked;
};

void NoteKeyword(OpenBlock& block, Line& line, bool known);
void NoteEnd(SceneText& text, const OpenBlock& block);
void NoteOpen(SceneText& text, const OpenBlock& block);
void NoteRequired(SceneText& text, const OpenBlock& block, std::initializer_list<std::string_view> required);

// Hands each line with a keyword to `handle` (bool(const Keyword&, Line&): was it known?), which
// may itself read a nested block. Ends behind the line "end" or with the text. `required`: keywords without a
// default.
template <class Handler>
void ReadBlock(SceneText& text, std::string_view name, std::initializer_list<std::string_view> required,
               Handler&& handle) {
  OpenBlock block = {name, text.line, {}, {}, 0, {}};
  std::string content;
  bool ended = false;
  while (!ended && ReadLine(text, content)) {
    Line line(text, content);
    ended = line.keyword == "end";
    if (ended || line.keyword.empty()) continue;
    block.asked.clear();
    const bool known = handle(Keyword(line.keyword, text.notes ? &block.asked : nullptr), line);
    if (text.notes) NoteKeyword(block, line, known);
  }
  if (!text.notes) return;
  if (ended)
    NoteEnd(text, block);
  else
    NoteOpen(text, block);
  NoteRequired(text, block, required);
}
template <class Handler>
void ReadBlock(SceneText& text, std::string_view name, Handler&& handle) {
  ReadBlock(text, name, {}, handle);
}

}  // namespace zp
