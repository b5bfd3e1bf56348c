#include "geometry/geometry.h"
#include "scene/blocks.h"

namespace zp {
namespace {

bool ReadInstanceBlock(SceneText& text, Instance& instance) {
  const TextPlace place = text.Here();
  ReadBlock(text, "instance", {"object"}, [&](std::string_view keyword, Line& line) {
    if (keyword == "matrix") return ReadMatrix(line, instance.matrix);
    if (keyword == "object") {
      ReadWord(line, instance.objectName);
      if (text.notes) NoteName(line, NameKind::kObject, instance.objectName);
      return true;
    }
    if (keyword == "shader") {
      instance.shader = FindOrCreateShader(ReadName(line, NameKind::kShader));
      return true;
    }
    return false;
  });
  if (text.notes) text.notes->instances.push_back({place, instance});
  return true;
}

}  // namespace

void ReadObjectSection(SceneText& text) {
  const std::size_t index = objectTable.size();
  Object& object = objectTable.emplace_back();
  NotedObject noted;
  noted.place = text.Here();
  ReadBlock(text, "object", [&](std::string_view keyword, Line& line) {
    if (keyword == "name") return ReadWord(line, object.name);
    if (keyword == "shader") {
      noted.shader = line.Place();
      object.shader = FindOrCreateShader(ReadName(line, NameKind::kShader));
      return true;
    }
    if (keyword == "instance") return ReadInstanceBlock(text, object.instances.emplace_back());
    if (keyword == "obj") {
      noted.hasObj = true;
      const std::string name = ReadString(line);
      const bool opened = ReadObjFile(name, object.parts.emplace_back());
      if (!text.notes) return true;
      if (!opened) NoteLine(line, Severity::kError, "cannot open the file " + Quoted(name));
      if (opened) text.notes->models.push_back({line.Place(), name, index, object.parts.size() - 1});
      return true;
    }
    return false;
  });
  if (!text.notes) return;
  noted.name = object.name;
  text.notes->objects.push_back(std::move(noted));
}

}  // namespace zp
