// What the token rules tell an observer. Nothing here runs without one.

#include "scene/notes.h"

#include <algorithm>
#include <utility>

#include "scene/blocks.h"
#include "scene/tokens.h"

namespace zp {

SceneNotes* sceneNotes = nullptr;

namespace {

std::string_view FirstToken(std::string_view text) { return text.substr(0, text.find_first_of(kBlanks)); }

// A keyword alone on its line, or before a remark, may be meant to open a block.
bool StandsAlone(const Line& line) {
  const std::string_view rest = RestOfLine(line);
  return rest.empty() || rest.front() == '#';
}

}  // namespace

void Note(TextPlace place, Severity severity, std::string text) {
  if (sceneNotes) sceneNotes->findings.push_back({std::move(place), severity, std::move(text)});
}

void NoteLine(Line& line, Severity severity, const std::string& message) {
  if (line.noted) return;
  line.noted = true;
  Note(line.Place(), severity, line.keyword + ": " + message);
}

std::string_view RestOfLine(const Line& line) {
  const std::string_view rest = line.values.Rest();
  return rest.substr(std::min(rest.find_first_not_of(kBlanks), rest.size()));
}

void NoteNumber(Line& line, std::string_view rest) {
  const std::string_view token = FirstToken(rest);
  if (line.values.failed) {
    if (token.empty() || token.front() == '#')
      NoteLine(line, Severity::kError, "a number is missing");
    else
      NoteLine(line, Severity::kError, "cannot read " + Quoted(token) + " as a number of this kind");
    return;
  }
  // The next character must be a blank, or the number ended within its token.
  const std::string_view next = line.values.Rest();
  if (!next.empty() && kBlanks.find(next.front()) == kBlanks.npos)
    NoteLine(line, Severity::kError, "only the beginning of " + Quoted(token) + " is read as a number");
}

void NoteString(Line& line, std::string_view rest) {
  const std::size_t open = rest.find('"');
  if (open == rest.npos) {
    const bool missing = rest.find_first_not_of(kBlanks) == rest.npos;
    NoteLine(line, Severity::kError,
             missing ? "a string is missing" : "a string without quotes counts as empty");
  } else if (rest.find('"', open + 1) == rest.npos) {
    NoteLine(line, Severity::kError, "the closing quote is missing");
  }
}

void NoteName(Line& line, NameKind kind, const std::string& name) {
  if (!name.empty()) line.text.notes->names.push_back({line.Place(), kind, name});
}

void NoteKeyword(OpenBlock& block, Line& line, bool known) {
  if (known) {
    block.seen.push_back(line.keyword);
    return;
  }
  if (line.keyword.front() == '#') return;  // an indented remark
  if (StandsAlone(line)) {
    block.opener = line.keyword;
    block.openerLine = line.number;
  }
  if (line.noted) return;
  const std::string inBlock = " in " + Quoted(block.name) + " of line " + std::to_string(block.line);
  if (IsSectionKeyword(line.keyword) && StandsAlone(line))
    Note(line.Place(), Severity::kError,
         "unknown keyword " + Quoted(line.keyword) + inBlock + ": an \"end\" is missing before it");
  else
    Note(line.Place(), Severity::kError, "unknown keyword " + Quoted(line.keyword) + inBlock);
}

void NoteEnd(SceneText& text, const OpenBlock& block) {
  if (block.opener.empty()) return;
  text.doubtfulEnds.push_back({text.line, "\"end\" closes " + Quoted(block.name) + " of line " +
                                              std::to_string(block.line) + " early: " + Quoted(block.opener) +
                                              " of line " + std::to_string(block.openerLine) +
                                              " opened no block"});
}

void NoteOpen(SceneText& text, const OpenBlock& block) {
  Note(text.Place(block.line), Severity::kError,
       Quoted(block.name) + " is still open at the end of the file");
}

void NoteRequired(SceneText& text, const OpenBlock& block, std::initializer_list<std::string_view> required) {
  for (const std::string_view keyword : required)
    if (std::find(block.seen.begin(), block.seen.end(), keyword) == block.seen.end())
      Note(text.Place(block.line), Severity::kError,
           Quoted(block.name) + " states no " + Quoted(keyword) + ", which has no default");
}

}  // namespace zp
