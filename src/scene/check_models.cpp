// Models and the objects that hold them.

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>

#include "core/index.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "scene/check_parts.h"

namespace zp {
namespace {

// Strands are curves with tangents of unit length: over less than a third of that they run back on
// themselves.
constexpr float kShortSegment = 1.0f / 3;

// What a file without faces seems to be. Only such a file is opened once more.
std::string KindOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char bytes[512] = {};
  file.read(bytes, sizeof bytes);
  const std::string_view begin(bytes, static_cast<std::size_t>(file.gcount()));
  if (begin.empty()) return "it is empty";
  if (begin.starts_with("solid")) return "it seems to be an STL file";
  if (begin.starts_with("ply")) return "it seems to be a PLY file";
  if (begin.starts_with("glTF")) return "it seems to be a glTF file";
  if (begin.find('\0') != begin.npos) return "it is no text";
  return {};
}

void CheckObj(SceneNotes& notes, const NotedModel& model) {
  const ObjReport& report = model.report;
  const Part& part = objectTable[model.object].parts[model.part];
  const std::string name = Quoted(model.fileName);
  const auto drop = [&](std::size_t count, const std::string& why) {
    if (count > 0) Find(notes, model.place, FindingCode::kDroppedFaces, name + ": " + why);
  };
  if (report.faces == 0 && part.triangles.empty() && part.tetragons.empty()) {
    const std::string kind = KindOfFile(model.fileName);
    Find(notes, model.place, FindingCode::kEmptyModel,
         name + " holds no faces" + (kind.empty() ? "" : ": " + kind));
  }
  std::string where;
  constexpr std::size_t kMostGroups = 4;
  for (std::size_t i = 0; i < std::min(report.groups.size(), kMostGroups); ++i)
    if (!report.groups[i].name.empty())
      where += (where.empty() ? ": " : ", ") + std::to_string(report.groups[i].polygons) + " in " +
               Quoted(report.groups[i].name);
  if (report.groups.size() > kMostGroups) where += " and others";
  drop(report.polygons, Count(report.polygons, "face") + " of " + std::to_string(report.faces) +
                            " with five corners or more " + (report.polygons == 1 ? "is" : "are") +
                            " dropped" + where + "; in format 2 they are taken");
  drop(report.slivers, Count(report.slivers, "face") + " with less than three corners dropped");
  drop(report.outOfRange, Count(report.outOfRange, "face") + " with corners that are not there dropped");
  drop(report.longLines, Count(report.longLines, "line") + " of 4096 bytes or more dropped");
}

// Shaders that the faces of a model ask for by usemtl and that no section defines, and faces that ask for
// none: of the default shader, number 0, a section can be the definition too.
void CheckMaterials(SceneNotes& notes, const NotedModel& model, const std::vector<bool>& sections) {
  const Part& part = objectTable[model.object].parts[model.part];
  std::vector<std::int32_t> used;
  std::vector<bool> seen(shaders.size());
  const auto use = [&](std::int32_t shader) {
    if (!IsIndex(seen, shader)) return;
    if (!At(seen, shader)) used.push_back(shader);
    At(seen, shader) = true;
  };
  for (const Triangle& triangle : part.triangles) use(triangle.shader);
  for (const Tetragon& tetragon : part.tetragons) use(tetragon.shader);
  std::vector<std::string_view> known;
  for (const std::int32_t index : used) {
    if (index == 0 || At(sections, index)) continue;
    if (known.empty())
      for (std::size_t i = 0; i < shaders.size(); ++i)
        if (sections[i]) known.push_back(shaders[i].name);
    const std::string& name = ShaderAt(index).name;
    Find(notes, model.place, FindingCode::kUnknownShader,
         "there is no shader " + Quoted(name) + " for faces of " + Quoted(model.fileName),
         Suggest(notes, name, known));
  }
  const bool dressed = settings.format >= 2 && objectTable[model.object].shader != 0;
  if (model.report.unnamed > 0 && !sections[0] && !dressed)
    Find(notes, model.place, FindingCode::kNoMaterial,
         Quoted(model.fileName) + ": " + Count(model.report.unnamed, "face") +
             " without usemtl in the default shader, a grey of 0.85");
}

// Of format 1; in format 2 tangents are as long as their segments.
void CheckStrands(SceneNotes& notes, const NotedModel& model) {
  if (settings.format >= 2) return;
  const Part& part = objectTable[model.object].parts[model.part];
  double sum = 0;
  std::size_t count = 0;
  for (const std::uint32_t first : part.cylinders) {
    if (first >= part.positions.size() || first + 1 >= part.positions.size()) continue;
    const Vec3 way = part.positions[first + 1] - part.positions[first];
    sum += std::sqrt(static_cast<double>(Dot(way, way)));
    ++count;
  }
  const double mean = count > 0 ? sum / static_cast<double>(count) : 1;
  if (!(mean < kShortSegment)) return;
  char text[32];
  std::snprintf(text, sizeof text, "%.3g", mean);
  Find(notes, model.place, FindingCode::kShortSegments,
       Quoted(model.fileName) + ": segments of " + text +
           " scene units on average tangle: their tangents have a length of 1 but in format 2");
}

std::string NameOf(const Object& object) {
  return object.name.empty() ? "an object without a name" : Quoted(object.name);
}

}  // namespace

SceneGraph ReadGraph() {
  SceneGraph graph;
  const std::size_t count = objectTable.size();
  graph.drawn.resize(count);
  graph.undressed.resize(count);
  graph.placed.resize(count);
  std::vector<std::size_t> instances;
  for (Object& object : objectTable) {
    object.level = -1;
    instances.push_back(object.instances.size());
  }
  ResolveInstances();
  graph.root = FindRootObject();
  if (graph.root != kNone) {
    JoinUnplaced(graph.root);
    AssignLevels(graph.root, graph.cuts);
    std::vector<std::int32_t> open = {graph.root};
    At(graph.undressed, graph.root) = true;
    while (!open.empty()) {
      const Object& object = At(objectTable, open.back());
      open.pop_back();
      for (const Instance& instance : object.instances) {
        const std::int32_t placed = instance.object;
        if (placed < 0 || instance.shader != kNone || At(graph.undressed, placed)) continue;
        At(graph.undressed, placed) = true;
        open.push_back(placed);
      }
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    graph.drawn[i] = objectTable[i].level >= 0;
    graph.placed[i] = objectTable[i].level > 0;
  }
  // What the root does not reach is a cycle, or below one.
  for (std::size_t i = 0; i < count; ++i)
    if (objectTable[i].level < 0) AssignLevels(static_cast<std::int32_t>(i), graph.cuts);
  for (std::size_t i = 0; i < count; ++i) {
    objectTable[i].instances.resize(instances[i]);
    for (Instance& instance : objectTable[i].instances) instance.object = kNone;
    objectTable[i].level = 0;
  }
  return graph;
}

void CheckGraph(SceneNotes& notes, const SceneGraph& graph) {
  std::map<std::pair<std::size_t, std::size_t>, TextPlace> places;
  if (!graph.cuts.empty())
    for (const NotedInstance& noted : notes.instances) places[{noted.object, noted.index}] = noted.place;
  for (const InstanceCut& cut : graph.cuts) {
    const Object& object = At(objectTable, cut.object);
    const auto place = places.find({static_cast<std::size_t>(cut.object), cut.instance});
    if (place == places.end()) continue;
    const std::string& placed = At(objectTable, cut.placed).name;
    if (cut.isCycle)
      Find(notes, place->second, FindingCode::kCyclicInstance,
           cut.object == cut.placed
               ? "an object cannot place itself"
               : NameOf(object) + " places " + Quoted(placed) + ", which already holds it");
    else
      Find(notes, place->second, FindingCode::kDeepInstance,
           Quoted(placed) + " lies more than " + std::to_string(kMostInstanceLevels) +
               " levels of instances deep and is not drawn");
  }
  for (const NotedObject& noted : notes.objects) {
    const Object& object = objectTable[noted.index];
    if (object.parts.size() > kMostParts)
      Find(notes, noted.place, FindingCode::kTooManyParts,
           "the object has " + std::to_string(object.parts.size()) + " parts: those behind the first " +
               std::to_string(kMostParts) + " are dropped");
    if (object.parts.empty() && object.instances.empty()) continue;
    if (!graph.drawn[noted.index])
      Find(notes, noted.place, FindingCode::kNotDrawn,
           NameOf(object) + " is not drawn: nothing that is drawn places it");
    else if (!object.referenced && static_cast<std::int32_t>(noted.index) != graph.root)
      Find(notes, noted.place, FindingCode::kUnplacedObject,
           "nothing places " + NameOf(object) + ": it joins " + NameOf(At(objectTable, graph.root)) +
               " where its model stands");
  }
}

void CheckModels(SceneNotes& notes, const SceneGraph& graph, const std::vector<bool>& sections) {
  for (const NotedModel& model : notes.models) {
    CheckObj(notes, model);
    if (graph.undressed[model.object] || !graph.drawn[model.object]) CheckMaterials(notes, model, sections);
  }
  for (const NotedModel& model : notes.strands) CheckStrands(notes, model);
}

}  // namespace zp
