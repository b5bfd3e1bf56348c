#include "write_scene.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "core/box.h"
#include "core/words.h"
#include "geometry_files.h"
#include "imaging/imaging.h"
#include "pictures.h"
#include "scene/scene_writer.h"
#include "shaders.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRootName = "scene";
constexpr int kMostLevels = 12;    // of instances, of one model; a scene may have 16
constexpr int kPictureSide = 960;  // pixels, the longer one

void Save(const fs::path& path, const std::string& text) {
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  std::ofstream stream(path, std::ios::binary);
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  stream.close();
  if (!stream) FailWrite(path.filename().string());
}

// Names that are free, each a token.
struct Names {
  std::set<std::string> taken = {};

  std::string Take(const std::string& wish) {
    const std::string token = TokenOf(wish);
    std::string name = token;
    for (int i = 2; !taken.insert(name).second; ++i) name = token + '-' + std::to_string(i);
    return name;
  }
};

// An object, placed.
struct Placement {
  std::string object;
  Mat4 matrix;
  int levels = 1;  // of instances below it, itself included
};

bool IsSound(const Mat4& matrix) {
  double determinant = 0;
  const auto& m = matrix.m;
  for (int i = 0; i < 3; ++i) {
    const int j = (i + 1) % 3, k = (i + 2) % 3;
    determinant += static_cast<double>(m[0][i]) *
                   (static_cast<double>(m[1][j]) * m[2][k] - static_cast<double>(m[1][k]) * m[2][j]);
  }
  bool finite = std::isfinite(determinant) && determinant != 0;
  for (const auto& row : m)
    for (const float number : row) finite = finite && std::isfinite(number);
  return finite && std::fabs(determinant) > 1e-30;
}

struct SceneFolder {
  const WriteSettings& settings;
  Names objects = {{kRootName, "ground"}};
  Names shaders = {};
  Names files = {};
  PictureShelf shelf = {settings.folder + "/image"};
  SceneWriter objectText = {};
  std::string shaderText = {};
  std::vector<Placement> roots = {};
  Box bounds = {};
  std::vector<Vec3> points = {};  // some of all vertices
};

// The objects of one model.
struct ModelWriter {
  SceneFolder& scene;
  ImportModel& model;
  std::vector<std::string> shaderNames = {};  // of its surfaces
  std::vector<std::int32_t> uvSets = {};
  std::map<std::vector<std::int32_t>, std::string> geometries = {};  // objects, by their meshes
  std::map<std::vector<std::int32_t>, int> uses = {};

  // Those of a surface's pictures that are read by other texture coordinates than the first are lost.
  std::int32_t ChooseUvSet(ImportSurface& surface) {
    std::optional<std::int32_t> chosen;
    for (PictureUse* use : {&surface.basePicture, &surface.normalPicture, &surface.roughnessPicture,
                            &surface.metallicPicture, &surface.emissionPicture, &surface.maskPicture}) {
      if (use->picture == kNone) continue;
      if (!chosen) chosen = use->uvSet;
      if (use->uvSet != *chosen) {
        AddLoss(model, "a picture of \"" + surface.name +
                           "\" is left out: it has other texture coordinates than another");
        *use = {};
      }
    }
    return chosen.value_or(0);
  }

  void WriteShaders() {
    for (std::size_t i = 0; i < model.surfaces.size(); ++i) {
      ImportSurface surface = model.surfaces[i];
      uvSets.push_back(ChooseUvSet(surface));
      shaderNames.push_back(scene.shaders.Take(surface.name));
      scene.shaderText += ShaderText(std::move(surface), shaderNames.back(), model, scene.shelf) + '\n';
    }
  }

  std::string GeometryFile(const std::vector<std::int32_t>& parts, const std::string& name) {
    const std::string file = "model/" + scene.files.Take(name) + (scene.settings.binary ? ".zpm" : ".obj");
    fs::create_directories(scene.settings.folder + "/model");
    WriteGeometry(model, parts, shaderNames, uvSets, scene.settings.folder + '/' + file,
                  scene.settings.binary);
    return file;
  }

  void NameGeometry(const std::vector<std::int32_t>& parts, const std::string& name) {
    WriteString(scene.objectText, scene.settings.binary ? "mesh" : "obj", GeometryFile(parts, name));
  }

  // The object of some meshes, made at its first use.
  std::string GeometryObject(const std::vector<std::int32_t>& parts, const std::string& wish) {
    if (const auto found = geometries.find(parts); found != geometries.end()) return found->second;
    const std::string name = scene.objects.Take(wish);
    OpenBlock(scene.objectText, "object");
    WriteWord(scene.objectText, "name", name);
    NameGeometry(parts, name);
    CloseBlock(scene.objectText);
    scene.objectText.text += '\n';
    geometries[parts] = name;
    return name;
  }

  void WriteInstances(const std::vector<Placement>& placements) {
    for (const Placement& placement : placements) {
      OpenBlock(scene.objectText, "instance");
      WriteWord(scene.objectText, "object", placement.object);
      WriteNumbers(scene.objectText, "matrix", {&placement.matrix.m[0][0], 16});
      CloseBlock(scene.objectText);
    }
  }

  void CountUses() {
    for (const ImportNode& node : model.nodes)
      if (!node.meshes.empty()) ++uses[node.meshes];
  }

  static Placement Moved(const Mat4& matrix, const Placement& placement) {
    return {placement.object, Multiply(matrix, placement.matrix), placement.levels};
  }

  // What a node shows, placed in its parent: objects of nodes that hold several things, else the thing
  // itself.
  std::vector<Placement> Place(std::size_t index, int depth) {
    constexpr int kDeepest = 2000;
    if (depth > kDeepest) throw ImportError("its nodes stand in too many levels");
    const ImportNode& node = model.nodes[index];
    const std::string& name = node.name.empty() ? model.name : node.name;
    std::vector<Placement> placements;
    for (const std::int32_t child : node.children)
      for (const Placement& placement : Place(static_cast<std::size_t>(child), depth + 1))
        placements.push_back(placement);
    if (!IsSound(node.matrix)) {
      if (!placements.empty() || !node.meshes.empty())
        AddLoss(model, "\"" + name + "\" is left out: it is scaled to nothing");
      return {};
    }
    const bool isAlone = placements.empty() || node.meshes.empty();
    const bool ownsMesh = !node.meshes.empty() && !isAlone && uses[node.meshes] == 1;
    if (!node.meshes.empty() && !ownsMesh) placements.push_back({GeometryObject(node.meshes, name), {}, 1});
    int levels = 0;
    for (const Placement& placement : placements) levels = std::max(levels, placement.levels);
    if ((placements.size() == 1 && !ownsMesh) || (levels >= kMostLevels && !ownsMesh)) {
      for (Placement& placement : placements) placement = Moved(node.matrix, placement);
      return placements;
    }
    if (placements.empty()) return {};
    const std::string object = scene.objects.Take(name);
    OpenBlock(scene.objectText, "object");
    WriteWord(scene.objectText, "name", object);
    if (ownsMesh) NameGeometry(node.meshes, object);
    WriteInstances(placements);
    CloseBlock(scene.objectText);
    scene.objectText.text += '\n';
    return {{object, node.matrix, levels + 1}};
  }

  void GrowBounds() {
    constexpr std::size_t kPointsOfMesh = 5000;
    const std::vector<Mat4> places = NodePlaces(model);
    for (std::size_t i = 0; i < model.nodes.size(); ++i) {
      const Mat4 place = Multiply(model.toScene, places[i]);
      for (const std::int32_t part : model.nodes[i].meshes) {
        const ImportMesh& mesh = model.meshes[static_cast<std::size_t>(part)];
        const std::size_t step = mesh.corners.size() / kPointsOfMesh + 1;
        for (std::size_t k = 0; k < mesh.corners.size(); ++k) {
          const Vec3 at = TransformPoint(place, mesh.positions[mesh.corners[k]]);
          if (!IsFinite(at)) continue;
          Grow(scene.bounds, at);
          if (k % step == 0) scene.points.push_back(at);
        }
      }
    }
  }

  void Write() {
    WriteShaders();
    CountUses();
    std::vector<Placement> placements = Place(0, 0);
    if (placements.empty()) throw ImportError("it shows no faces");
    if (placements.size() > 1) {  // too deep to be an object of its own, or it would be one
      OpenBlock(scene.objectText, "object");
      const std::string name = scene.objects.Take(model.name);
      WriteWord(scene.objectText, "name", name);
      WriteInstances(placements);
      CloseBlock(scene.objectText);
      scene.objectText.text += '\n';
      placements = {{name, {}, kMostLevels + 1}};
    }
    scene.roots.push_back(Moved(model.toScene, placements[0]));
    GrowBounds();
  }
};

constexpr float kFarAway = 1e15f;  // what is farther is damage, and squares of it are no numbers

// A camera that has all in view, from the front, the right and above: the place where both pairs of sides of
// its view touch the points from outside.
ImportCamera FramingCamera(const std::vector<Vec3>& points) {
  constexpr float kMargin = 1.2f;
  ImportCamera camera;
  camera.name = "view";
  camera.forward = UnitVector({-0.5f, 1, -0.38f});
  camera.up = {0, 0, 1};
  const Vec3 right = UnitVector(Cross(camera.forward, camera.up)), up = Cross(right, camera.forward);
  const float slopes[] = {std::tan(camera.fieldOfView * kPi / 360) / kMargin,
                          std::tan(camera.fieldOfView * kPi / 360) / camera.aspect / kMargin};
  const Vec3 axes[] = {right, up};
  float distance = -kFarthest;
  Vec3 place = {};
  for (int i = 0; i < 2; ++i) {
    float most = -kFarthest, least = kFarthest;  // where the sides' planes cut the axis
    for (const Vec3 point : points) {
      if (!(SafeLength(point) < kFarAway)) continue;
      const float across = Dot(point, axes[i]), nearer = -slopes[i] * Dot(point, camera.forward);
      most = MaxOf(most, across + nearer);
      least = MinOf(least, across - nearer);
    }
    if (most < least) most = least = 0;
    place += 0.5f * (most + least) * axes[i];
    distance = MaxOf(distance, 0.5f * (most - least) / slopes[i]);
  }
  camera.position = place - camera.forward * MaxOf(distance, 1e-3f);
  return camera;
}

// Something to aim and to focus at: what is straight ahead, as far as the middle of the scene, and so far
// that numbers tell it from the camera's place.
Vec3 TargetOf(const ImportCamera& camera, const Box& bounds) {
  const float ahead = Dot(Center(bounds) - camera.position, camera.forward);
  const float least = 1e-3f + 1e-5f * SafeLength(camera.position);
  return camera.position + camera.forward * MaxOf(MinOf(ahead, kFarAway), least);
}

void WriteCamera(SceneWriter& text, const ImportCamera& camera, const std::string& name, const Box& bounds) {
  constexpr float kPasses = 24;
  const float aspect =
      std::clamp(std::isfinite(camera.aspect) && camera.aspect > 0 ? camera.aspect : 16.0f / 9, 0.05f, 20.0f);
  const float width = aspect >= 1 ? kPictureSide : std::round(kPictureSide * aspect);
  OpenBlock(text, "camera");
  WriteString(text, "name", name);
  WriteNumbers(text, "resolution", {width, std::round(width / aspect)});
  WriteNumbers(text, "sample", {kPasses});
  OpenBlock(text, "pose");
  WriteTriple(text, "position", camera.position);
  WriteTriple(text, "target", TargetOf(camera, bounds));
  const bool isSteep = std::fabs(Dot(UnitVector(camera.up), UnitVector(camera.forward))) > 0.9999f;
  WriteTriple(text, "up_vector", isSteep ? UnitPerpendicular(camera.forward) : camera.up);
  WriteNumbers(text, "field_of_view", {std::clamp(camera.fieldOfView, 0.1f, 170.0f)});
  CloseBlock(text);
  CloseBlock(text);
  text.text += '\n';
}

ImportCamera InScene(const Mat4& matrix, ImportCamera camera) {
  camera.position = TransformPoint(matrix, camera.position);
  camera.forward = UnitVector(TransformDirection(matrix, camera.forward));
  camera.up = UnitVector(TransformDirection(matrix, camera.up));
  return camera;
}

void WriteCameras(const SceneFolder& scene, const std::vector<ImportModel>& models) {
  SceneWriter text;
  Names names;
  for (const ImportModel& model : models)
    for (const ImportCamera& source : model.cameras) {
      const ImportCamera camera = InScene(model.toScene, source);
      if (IsFinite(camera.position) && IsFinite(camera.forward))
        WriteCamera(text, camera, names.Take(camera.name), scene.bounds);
    }
  if (text.text.empty()) WriteCamera(text, FramingCamera(scene.points), "view", scene.bounds);
  Save(scene.settings.folder + "/camera/cameras.zp", text.text);
}

void WriteLight(SceneWriter& text, const ImportLight& light, const Mat4& toScene) {
  const bool isParallel = light.kind == LightKind::kParallel;
  const Vec3 direction = UnitVector(TransformDirection(toScene, light.direction));
  WriteComment(text, light.name);
  OpenBlock(text, isParallel ? "parallel_light" : "point_light");
  WriteTriple(text, "color", light.color);
  if (!isParallel) WriteTriple(text, "position", TransformPoint(toScene, light.position));
  if (light.kind != LightKind::kPoint) WriteTriple(text, "direction", direction);
  if (!isParallel) {
    const bool isSpot = light.kind == LightKind::kSpot;
    const float inner = isSpot ? light.inner : 180;
    WriteNumbers(text, "inner_angle", {inner});
    WriteNumbers(text, "outer_angle", {isSpot ? MaxOf(light.outer, inner + 0.01f) : 181.0f});
  }
  WriteNumbers(text, "offset", {0});
  CloseBlock(text);
  text.text += '\n';
}

// From the left behind the camera, as in a studio.
void WriteStageSun(SceneWriter& text) {
  OpenBlock(text, "parallel_light");
  WriteNumbers(text, "color", {2.6f, 2.45f, 2.2f});
  WriteTriple(text, "direction", {0.8f, 0.9f, -1.1f});
  WriteNumbers(text, "blur", {2});
  CloseBlock(text);
  text.text += '\n';
}

// What the camera sees behind the models, and on the ground: a light grey that fades downwards.
std::string BackdropPicture() {
  constexpr int kRows = 32;
  std::string bytes = "PF\n2 " + std::to_string(kRows) + "\n-1.0\n";  // the lowest row first
  for (int row = 0; row < kRows; ++row) {
    const float level = 1.1f + 0.5f * MinOf(2.0f * static_cast<float>(row) / kRows, 1);
    for (int i = 0; i < 6; ++i) bytes.append(reinterpret_cast<const char*>(&level), sizeof level);
  }
  return bytes;
}

void WriteSky(SceneFolder& scene, SceneWriter& text, bool isLit) {
  OpenBlock(text, "sky_light");
  if (!scene.settings.sky.empty()) {
    const fs::path source(scene.settings.sky);
    std::string name = TokenOf(source.filename().string());
    while (!scene.shelf.names.insert(name).second) name = "sky-" + name;
    fs::create_directories(scene.shelf.folder);
    std::error_code error;
    const fs::path copy = fs::path(scene.shelf.folder) / name;
    fs::copy_file(source, copy, error);
    ImageBuffer picture;
    if (error || !LoadImage(picture, copy.string()))
      throw ImportError(
          "the sky '" + scene.settings.sky + "' " +
          (error ? "cannot be read: " + error.message() : std::string(ProblemText(picture.problem))));
    WriteString(text, "image", name);
    WriteTriple(text, "color", kWhite);
  } else if (isLit) {
    WriteTriple(text, "color", kBlack);
  } else if (scene.settings.stage) {
    WriteString(text, "image", "analytic");
    WriteNumbers(text, "color", {0.23f, 0.185f, 0.145f});  // less blue than it is
    WriteNumbers(text, "turbidity", {3});
    WriteNumbers(text, "albedo", {0.6f});
    Save(fs::path(scene.shelf.folder) / "backdrop.pfm", BackdropPicture());
    WriteString(text, "backdrop", "backdrop.pfm");
  } else {
    WriteNumbers(text, "color", {0.75f, 0.75f, 0.75f});
  }
  CloseBlock(text);
  text.text += '\n';
}

bool WriteLights(SceneFolder& scene, const std::vector<ImportModel>& models) {
  SceneWriter text;
  bool isLit = false;
  for (const ImportModel& model : models)
    for (const ImportLight& light : model.lights) {
      isLit = true;
      WriteLight(text, light, model.toScene);
    }
  const bool hasStage = scene.settings.stage && !isLit && scene.settings.sky.empty();
  if (hasStage) WriteStageSun(text);
  WriteSky(scene, text, isLit);
  Save(scene.settings.folder + "/light/lights.zp", text.text);
  return isLit;
}

// A plane below the models that catches their shadows, so large that its rim is out of sight.
void WriteGround(SceneFolder& scene) {
  const Vec3 size = scene.bounds.max - scene.bounds.min, middle = Center(scene.bounds);
  const float half = 50 * MaxOf(MaxOf(size.x, size.y), MaxOf(size.z, 1e-6f));
  SceneWriter obj;
  for (const Vec2 corner : {Vec2{-1, -1}, Vec2{1, -1}, Vec2{1, 1}, Vec2{-1, 1}})
    WriteTriple(obj, "v", {middle.x + half * corner.x, middle.y + half * corner.y, scene.bounds.min.z});
  obj.text += "usemtl ground\nf 1 2 3 4\n";
  Save(scene.settings.folder + "/model/ground.obj", obj.text);
  SceneWriter shader;
  OpenBlock(shader, "shader");
  WriteString(shader, "name", "ground");
  OpenBlock(shader, "surface_shader");
  WriteKeyword(shader, "shadow_catcher");
  for (int i = 0; i < 2; ++i) CloseBlock(shader);
  scene.shaderText += shader.text;
}

void WriteObjects(SceneFolder& scene, bool hasGround) {
  SceneWriter& text = scene.objectText;
  OpenBlock(text, "object");
  WriteWord(text, "name", kRootName);
  if (hasGround) WriteString(text, "obj", "model/ground.obj");
  for (const Placement& root : scene.roots) {
    OpenBlock(text, "instance");
    WriteWord(text, "object", root.object);
    WriteNumbers(text, "matrix", {&root.matrix.m[0][0], 16});
    CloseBlock(text);
  }
  CloseBlock(text);
  Save(scene.settings.folder + "/geometry/objects.zp", text.text);
}

void WriteNotes(const SceneFolder& scene, const std::vector<ImportModel>& models) {
  std::string text;
  for (const ImportModel& model : models)
    for (const std::string& loss : model.losses)
      text += (models.size() > 1 ? model.name + ": " : "") + loss + '\n';
  if (text.empty()) text = "nothing was lost\n";
  Save(scene.settings.folder + "/import.txt", text);
}

}  // namespace

void WriteScene(std::vector<ImportModel>& models, const WriteSettings& settings) {
  SceneFolder scene{settings};
  scene.shaders.taken = {"ground", "undefined"};
  scene.shelf.names = {"backdrop.pfm"};
  scene.files.taken.insert("ground");
  for (ImportModel& model : models) ModelWriter{scene, model}.Write();
  const bool isLit = WriteLights(scene, models);
  const bool hasGround = settings.stage && !isLit;
  if (hasGround) WriteGround(scene);
  Save(settings.folder + "/shader/materials.zp", scene.shaderText);
  WriteObjects(scene, hasGround);
  WriteCameras(scene, models);
  SceneWriter render;
  OpenBlock(render, "render");
  WriteNumbers(render, "format", {2});
  if (hasGround) WriteNumbers(render, "clamp_indirect", {6, 6, 6});  // what is above is sparks
  CloseBlock(render);
  Save(settings.folder + "/render/render.zp", render.text);
  WriteNotes(scene, models);
}

}  // namespace zp
