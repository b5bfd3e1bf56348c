#include "scene/notes.h"

#include <utility>

namespace zp {

SceneNotes* sceneNotes = nullptr;

void Note(TextPlace place, FindingCode code, std::string text, std::string_view suggestion) {
  if (sceneNotes)
    sceneNotes->findings.push_back({std::move(place), code, std::move(text), std::string(suggestion)});
}

}  // namespace zp
