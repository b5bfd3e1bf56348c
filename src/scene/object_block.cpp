#include "geometry/geometry.h"
#include "scene/blocks.h"
#include "scene/tokens.h"

namespace zp {
namespace {

void ReadInstanceBlock(std::istream& stream, Instance& instance) {
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "matrix") ReadMatrix(line, instance.matrix);
    if (keyword == "object") ReadWord(line, instance.objectName);
    if (keyword == "shader") instance.shader = FindOrCreateShader(ReadString(line));
  });
}

}  // namespace

void ReadObjectSection(std::istream& stream) {
  Object& object = objectTable.emplace_back();
  ReadBlock(stream, [&](std::string_view keyword, Line& line) {
    if (keyword == "name") ReadWord(line, object.name);
    if (keyword == "shader") object.shader = FindOrCreateShader(ReadString(line));
    if (keyword == "instance") ReadInstanceBlock(stream, object.instances.emplace_back());
    if (keyword == "obj") ReadObjFile(ReadString(line), object.parts.emplace_back());
  });
}

}  // namespace zp
