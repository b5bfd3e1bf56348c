#include <array>

#include "core/console.h"
#include "core/progress.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/mesh_file.h"
#include "geometry/motion.h"
#include "scene/blocks.h"
#include "scene/scene.h"

namespace zp {
namespace {

bool ReadInstanceBlock(SceneText& text, std::size_t object) {
  const std::size_t index = objectTable[object].instances.size();
  Instance& instance = objectTable[object].instances.emplace_back();
  const TextPlace place = text.Here();
  ReadBlock(text, "instance", {"object"}, [&](const Keyword& keyword, Line& line) {
    if (keyword == "matrix") return ReadMatrix(line, instance.matrix);
    if (keyword == "matrix_end") {
      Mat4 close;
      ReadMatrix(line, close);
      SetMatrixEnd(instance, close);
      NoteOfFormat2(line);
      return true;
    }
    if (keyword == "object") {
      std::string name = instance.objectName.Text();
      ReadWord(line, name);
      if (text.notes) NoteName(line, NameKind::kObject, name);
      instance.objectName = name;
      return true;
    }
    if (keyword == "shader") {
      instance.shader = FindOrCreateShader(ReadName(line, NameKind::kShader));
      return true;
    }
    return false;
  });
  if (text.notes) text.notes->instances.push_back({place, instance, object, index});
  return true;
}

// The pictures of one mesh, in the order in which they are loaded: the last of them asks for all.
struct MeshPictureRow {
  std::string_view keyword;
  ArrayKind kind;
};
constexpr MeshPictureRow kMeshPictures[] = {
    {"position_texture", ArrayKind::kPosition}, {"uv_texture", ArrayKind::kUv},
    {"normal_texture", ArrayKind::kNormal},     {"tangent_texture", ArrayKind::kTangent},
    {"triangle_texture", ArrayKind::kTriangle},
};

// The mesh that the pictures of an object block fill, over and over.
struct MeshPictures {
  struct Picture {
    std::string name;
    TextPlace place;
    bool used = false;
  };
  std::array<Picture, std::size(kMeshPictures)> pictures;
  Part part;
};

void NotePicture(const TextPlace& place, std::string_view keyword, const std::string& name,
                 ArrayResult result, PictureProblem problem) {
  const std::string label = std::string(keyword) + ": ";
  if (result == ArrayResult::kNotLoaded)
    Note(place, CodeOf(problem),
         label + "the image " + Quoted(name) + ' ' + std::string(ProblemText(problem)));
  if (result == ArrayResult::kUnfit)
    Note(place, FindingCode::kUnfitPicture,
         label + Quoted(name) + " holds no 32-bit floats, or too few of them for each pixel");
}

// A texture keyword of a mesh: remembers its name; "triangle_texture" appends a copy of all that was loaded
// so far.
bool ReadMeshPicture(SceneText& text, const Keyword& keyword, Line& line, MeshPictures& mesh,
                     Object& object) {
  std::size_t index = 0;
  while (index < std::size(kMeshPictures) && keyword != kMeshPictures[index].keyword) ++index;
  if (index == std::size(kMeshPictures)) return false;
  mesh.pictures[index] = {ReadString(line), line.Place()};
  if (kMeshPictures[index].kind != ArrayKind::kTriangle) return true;
  for (std::size_t i = 0; i < std::size(kMeshPictures); ++i) {
    MeshPictures::Picture& picture = mesh.pictures[i];
    const std::size_t triangles = mesh.part.triangles.size();
    PictureProblem problem = {};
    const ArrayResult result = ReadArrayImage(kMeshPictures[i].kind, picture.name, mesh.part, &problem);
    if (text.notes && !picture.used)
      NotePicture(picture.place, kMeshPictures[i].keyword, picture.name, result, problem);
    picture.used = true;
    if (text.notes && i == index && result == ArrayResult::kRead && mesh.part.triangles.size() == triangles)
      NoteLine(line, FindingCode::kUnfitPicture,
               "no triangle of " + Quoted(picture.name) + " has all its positions");
  }
  object.parts.push_back(mesh.part);
  return true;
}

void NoteUnusedPictures(const MeshPictures& mesh) {
  for (std::size_t i = 0; i < std::size(kMeshPictures); ++i) {
    const MeshPictures::Picture& picture = mesh.pictures[i];
    if (picture.name.empty() || picture.used) continue;
    Note(picture.place, FindingCode::kUnusedPicture,
         std::string(kMeshPictures[i].keyword) + ": no \"triangle_texture\" follows, which would load it");
  }
}

enum class ModelKind { kObj, kMesh, kHair, kFur };

// A model file that the text has named.
struct NamedModel {
  ModelKind kind;
  std::size_t object, part;
  std::string name;
  TextPlace place;
  std::string endName = {};  // of the same model when the shutter closes; empty without one
  TextPlace endPlace = {};
};
std::vector<NamedModel> namedModels;

// The keyword of a model's end, on the line behind the model. False if it is another keyword.
bool ReadModelEnd(const Keyword& keyword, Line& line, std::size_t index) {
  const bool obj = keyword == "obj_end", hair = keyword == "hair_end";
  if (!obj && !hair) return false;
  const std::string name = ReadString(line);
  NoteOfFormat2(line);
  const ModelKind kind = obj ? ModelKind::kObj : ModelKind::kHair;
  const bool follows = !namedModels.empty() && namedModels.back().object == index &&
                       namedModels.back().part + 1 == objectTable[index].parts.size() &&
                       namedModels.back().kind == kind;
  if (follows) {
    namedModels.back().endName = name;
    namedModels.back().endPlace = line.Place();
  } else if (line.text.notes) {
    NoteLine(line, FindingCode::kUnfitEnd,
             obj ? "no \"obj\" stands on the line before it" : "no \"hair\" stands on the line before it");
  }
  return true;
}

// The path of a model's end; in format 1 there is none.
std::string EndPath(const NamedModel& model) {
  return settings.format < 2 || model.endName.empty() ? std::string() : ScenePath(model.endName);
}

void NoteEndResult(const NamedModel& model, EndResult result) {
  if (!sceneNotes || result == EndResult::kTaken) return;
  if (result == EndResult::kMissing)
    Note(model.endPlace, FindingCode::kMissingModel, "cannot open the file " + Quoted(model.endName));
  else
    Note(model.endPlace, FindingCode::kUnfitEnd,
         Quoted(model.endName) + " has another number of vertices or faces than " + Quoted(model.name) +
             ": nothing moves");
}

// The keyword of a model file, which makes a Part of its own. False if it is another keyword.
bool ReadModelName(const Keyword& keyword, Line& line, std::size_t index) {
  const bool obj = keyword == "obj", mesh = keyword == "mesh", hair = keyword == "hair",
             fur = keyword == "fur";
  if (!obj && !mesh && !hair && !fur) return false;
  if (mesh) NoteOfFormat2(line);
  Object& object = objectTable[index];
  object.parts.emplace_back();
  namedModels.push_back({obj    ? ModelKind::kObj
                         : mesh ? ModelKind::kMesh
                         : hair ? ModelKind::kHair
                                : ModelKind::kFur,
                         index, object.parts.size() - 1, ReadString(line), line.Place()});
  return true;
}

void ReadObjModel(const NamedModel& model, Part& part) {
  ObjReport report;
  EndResult end = EndResult::kTaken;
  const bool opened =
      ReadObjFile(ScenePath(model.name), part, sceneNotes ? &report : nullptr, EndPath(model), &end);
  NoteEndResult(model, end);
  if (!sceneNotes) return;
  if (opened)
    sceneNotes->models.push_back({model.place, model.name, model.object, model.part, std::move(report)});
  else
    Note(model.place, FindingCode::kMissingModel, "obj: cannot open the file " + Quoted(model.name));
}

void ReadMeshModel(const NamedModel& model, Part& part) {
  if (settings.format < 2) return;
  const bool read = ReadMeshFile(ScenePath(model.name), part);
  if (!sceneNotes) return;
  ObjReport report;
  report.positions = part.positions.size();
  report.faces = part.triangles.size() + part.tetragons.size();
  if (read)
    sceneNotes->models.push_back({model.place, model.name, model.object, model.part, std::move(report)});
  else
    Note(model.place, FindingCode::kMissingModel, "mesh: cannot open or read the file " + Quoted(model.name));
}

void ReadStrandModel(const NamedModel& model, Part& part) {
  const bool hair = model.kind == ModelKind::kHair;
  const std::string path = ScenePath(model.name);
  const bool read = hair ? ReadHairFile(path, part) : ReadFurFile(path, part);
  const std::string endPath = EndPath(model);
  if (read && hair && !endPath.empty()) NoteEndResult(model, ReadHairEnd(path, endPath, part));
  if (sceneNotes && read)
    sceneNotes->strands.push_back({model.place, model.name, model.object, model.part, {}});
  if (sceneNotes && !read)
    Note(model.place, FindingCode::kMissingModel,
         (hair ? "hair: cannot open or read the file " : "fur: cannot open the file ") + Quoted(model.name));
}

// A picture of particles makes a Part of its own.
bool ReadParticlePicture(SceneText& text, const Keyword& keyword, Line& line, Object& object) {
  if (keyword != "particle_texture") return false;
  const std::string name = ReadString(line);
  PictureProblem problem = {};
  const ArrayResult result =
      ReadArrayImage(ArrayKind::kParticle, name, object.parts.emplace_back(), &problem);
  if (text.notes) NotePicture(line.Place(), keyword, name, result, problem);
  return true;
}

}  // namespace

void ReadNamedModels() {
  PlanWork(Phase::kReading, namedModels.size());
  for (const NamedModel& model : namedModels) {
    Part& part = objectTable[model.object].parts[model.part];
    if (Stopping()) break;
    const std::int64_t begin = WallTicks();
    if (model.kind == ModelKind::kObj)
      ReadObjModel(model, part);
    else if (model.kind == ModelKind::kMesh)
      ReadMeshModel(model, part);
    else
      ReadStrandModel(model, part);
    if (settings.format >= 2)
      PrintFloatRow("reading of " + model.name, static_cast<float>(WallTicks() - begin) * 1e-7f, "seconds");
    FinishWork(Phase::kReading);
  }
  namedModels.clear();
}

void ReadObjectSection(SceneText& text) {
  const std::size_t index = objectTable.size();
  Object& object = objectTable.emplace_back();
  MeshPictures mesh;
  NotedObject noted;
  noted.place = text.Here();
  noted.index = index;
  ReadBlock(text, "object", [&](const Keyword& keyword, Line& line) {
    if (keyword == "name") return ReadWord(line, object.name);
    if (keyword == "shader") {
      noted.shader = line.Place();
      object.shader = FindOrCreateShader(ReadName(line, NameKind::kShader));
      return true;
    }
    if (keyword == "instance") return ReadInstanceBlock(text, index);
    if (ReadModelEnd(keyword, line, index)) return true;
    if (ReadModelName(keyword, line, index)) {
      noted.hasObj |= keyword == "obj" || keyword == "mesh";
      noted.hasOther |= keyword != "obj" && keyword != "mesh";
      return true;
    }
    const bool known = ReadMeshPicture(text, keyword, line, mesh, object) ||
                       ReadParticlePicture(text, keyword, line, object);
    noted.hasOther |= known;
    return known;
  });
  if (!text.notes) return;
  NoteUnusedPictures(mesh);
  noted.name = object.name;
  text.notes->objects.push_back(std::move(noted));
}

}  // namespace zp
