// What the token rules tell an observer. Nothing here runs without one.

#include "scene/tokens.h"

#include <algorithm>
#include <utility>

#include "scene/blocks.h"

namespace zp {
namespace {

std::string_view FirstToken(std::string_view text) { return text.substr(0, text.find_first_of(kBlanks)); }

// A keyword alone on its line, or before a remark, may be meant to open a block.
bool StandsAlone(const Line& line) {
  const std::string_view rest = RestOfLine(line);
  return rest.empty() || rest.front() == '#';
}

}  // namespace

void NoteLine(Line& line, FindingCode code, const std::string& message, std::string_view suggestion) {
  if (line.noted) return;
  line.noted = true;
  Note(line.Place(), code, line.keyword + ": " + message, suggestion);
}

bool NoteIdle(Line& line, bool isDefault, IdleIn formats) {
  if (!line.text.notes || line.noted) return true;
  const bool acts = formats == IdleIn::kFormat1;
  const std::string where = acts ? " in format 1; in format 2 it acts" : "";
  if (isDefault)
    NoteLine(line, FindingCode::kDefaultWithoutEffect,
             "has no effect" + (acts ? where : ", and the value is the default"));
  else
    NoteLine(line, FindingCode::kWithoutEffect, "is stored and has no effect" + where);
  line.text.notes->findings.back().ofFormat1 = acts;
  return true;
}

std::string_view RestOfLine(const Line& line) {
  const std::string_view rest = line.values.Rest();
  return rest.substr(std::min(rest.find_first_not_of(kBlanks), rest.size()));
}

void NoteNumber(Line& line, std::string_view rest) {
  const std::string_view token = FirstToken(rest);
  if (line.values.failed) {
    if (token.empty() || token.front() == '#')
      NoteLine(line, FindingCode::kMissingValue, "a number is missing");
    else
      NoteLine(line, FindingCode::kBadNumber, "cannot read " + Quoted(token) + " as a number of this kind");
    return;
  }
  // The next character must be a blank, or the number ended within its token.
  const std::string_view next = line.values.Rest();
  if (!next.empty() && kBlanks.find(next.front()) == kBlanks.npos)
    NoteLine(line, FindingCode::kBadNumber,
             "only the beginning of " + Quoted(token) + " is read as a number");
}

void NoteString(Line& line, std::string_view rest) {
  const std::size_t open = rest.find('"');
  if (open == rest.npos) {
    const bool missing = rest.find_first_not_of(kBlanks) == rest.npos;
    NoteLine(line, missing ? FindingCode::kMissingValue : FindingCode::kBadString,
             missing ? "a string is missing" : "a string without quotes counts as empty");
  } else if (rest.find('"', open + 1) == rest.npos) {
    NoteLine(line, FindingCode::kBadString, "the closing quote is missing");
  }
}

void NoteName(Line& line, NameKind kind, const std::string& name) {
  if (!name.empty()) line.text.notes->names.push_back({line.Place(), kind, name});
}

void NoteKeyword(OpenBlock& block, Line& line, bool known) {
  if (known) {
    block.seen.push_back(line.keyword);
    auto& stated = line.text.notes->stated;
    std::string key = std::string(block.name) + "." + line.keyword;
    if (block.name == "camera")
      stated.try_emplace(std::move(key), line.Place());
    else
      stated.insert_or_assign(std::move(key), line.Place());
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
    Note(line.Place(), FindingCode::kUnknownKeyword,
         "unknown keyword " + Quoted(line.keyword) + inBlock + ": an \"end\" is missing before it");
  else
    Note(line.Place(), FindingCode::kUnknownKeyword, "unknown keyword " + Quoted(line.keyword) + inBlock,
         NearestWord(line.keyword, block.asked));
}

void NoteEnd(SceneText& text, const OpenBlock& block) {
  if (block.opener.empty()) return;
  text.doubtfulEnds.push_back({text.line, "\"end\" closes " + Quoted(block.name) + " of line " +
                                              std::to_string(block.line) + " early: " + Quoted(block.opener) +
                                              " of line " + std::to_string(block.openerLine) +
                                              " opened no block"});
}

void NoteOpen(SceneText& text, const OpenBlock& block) {
  Note(text.Place(block.line), FindingCode::kMissingEnd,
       Quoted(block.name) + " is still open at the end of the file");
}

void NoteRequired(SceneText& text, const OpenBlock& block, std::initializer_list<std::string_view> required) {
  for (const std::string_view keyword : required)
    if (std::find(block.seen.begin(), block.seen.end(), keyword) == block.seen.end())
      Note(text.Place(block.line), FindingCode::kMissingKeyword,
           Quoted(block.name) + " states no " + Quoted(keyword) + ", which has no default");
}

}  // namespace zp
