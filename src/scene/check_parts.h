// What the parts of a check share. Each adds findings of its subject; the tables are as the reader left them.

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "accel/accel.h"
#include "core/words.h"
#include "scene/check.h"

namespace zp {

inline void Find(SceneNotes& notes, const TextPlace& place, FindingCode code, std::string text,
                 std::string_view suggestion = {}) {
  notes.findings.push_back({place, code, std::move(text), std::string(suggestion)});
}

// The name that was probably meant. Gives up on a text that asks too often: each question goes through all.
inline std::string_view Suggest(SceneNotes& notes, std::string_view name,
                                const std::vector<std::string_view>& known) {
  if (notes.comparisonsLeft < known.size()) return {};
  notes.comparisonsLeft -= known.size();
  return NearestWord(name, known);
}

// "1 face", "2 faces".
inline std::string Count(std::size_t count, std::string_view what) {
  return std::to_string(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

// Where a keyword stood, or `otherwise` if it did not.
const TextPlace& StatedAt(const SceneNotes& notes, std::string_view keyword, const TextPlace& otherwise);

// The graph of the objects as a render will see it, by index of the table.
struct SceneGraph {
  std::int32_t root = kNone;
  std::vector<bool> drawn;      // the root reaches it
  std::vector<bool> undressed;  // on some way without the shader of an instance
  std::vector<bool> placed;     // as an instance: drawn, and not the root
  std::vector<InstanceCut> cuts;
};
SceneGraph ReadGraph();  // leaves the table as it was

void CheckGraph(SceneNotes& notes, const SceneGraph& graph);
// `sections`: of each shader, whether a section defines it.
void CheckModels(SceneNotes& notes, const SceneGraph& graph, const std::vector<bool>& sections);
void CheckPictures(SceneNotes& notes);
void CheckRenderer(SceneNotes& notes, const SceneGraph& graph);
void CheckFormat(SceneNotes& notes, const SceneGraph& graph);

}  // namespace zp
