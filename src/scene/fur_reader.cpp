// Fur files: strands as text, by the token rules of scene files but without blocks. "segment" and "position"
// lines may stand in any order; they are matched when all are read.

#include <fstream>

#include "core/files.h"
#include "geometry/geometry.h"
#include "scene/blocks.h"

namespace zp {
namespace {

constexpr float kFurRadius = 0.003f;  // scene units

}  // namespace

void ReadFur(SceneText& text, Part& part) {
  if (part.uvSets.empty()) part.uvSets.push_back({"uv", {}});
  if (part.scalarSets.empty()) part.scalarSets.push_back({"radius", {}});
  std::vector<std::int32_t> lengths;
  std::string content;
  while (ReadLine(text, content)) {
    Line line(text, content);
    if (line.keyword == "segment") {
      ReadNumber(line, lengths.emplace_back(0));
      if (text.notes && lengths.back() < 0)
        NoteLine(line, FindingCode::kBadNumber, "a strand has no negative number of segments");
    } else if (line.keyword == "position") {
      ReadTriple(line, part.positions.emplace_back());
      part.uvSets[0].values.emplace_back();
      part.scalarSets[0].values.push_back(kFurRadius);
    } else if (text.notes && !line.keyword.empty() && line.keyword.front() != '#') {
      Note(text.Here(), FindingCode::kUnknownKeyword,
           "unknown keyword " + Quoted(line.keyword) + " in a fur file",
           NearestWord(line.keyword, {"segment", "position"}));
    }
  }

  StrandLayout strands = {part};
  bool more = true;
  for (std::size_t i = 0; i < lengths.size() && more; ++i) {
    if (lengths[i] < 0)
      strands.dropped = true;
    else
      more = strands.Add(static_cast<std::uint64_t>(lengths[i]));
  }
  strands.Finish();
  if (text.notes && strands.dropped)
    Note(text.Place(0), FindingCode::kStrandPoints, "the strands ask for more points than there are");
}

bool ReadFurFile(const std::string& path, Part& part) {
  std::ifstream stream;
  if (HoldsBytes(path)) stream.open(path);
  if (!stream.is_open()) {
    ++missingFiles;
    return false;
  }
  SceneText text = {stream, sceneNotes, path};
  ReadFur(text, part);
  return true;
}

}  // namespace zp
