#include "scene/check.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "geometry/object.h"
#include "lights/lights.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kAnalyticSky = "analytic";
constexpr float kRigidTolerance = 1e-3f;  // matrices are written with a few digits

using Names = std::set<std::string, std::less<>>;

void Error(SceneNotes& notes, const TextPlace& place, std::string text) {
  notes.findings.push_back({place, Severity::kError, std::move(text)});
}
void Warning(SceneNotes& notes, const TextPlace& place, std::string text) {
  notes.findings.push_back({place, Severity::kWarning, std::move(text)});
}

bool CanLoad(const std::string& name) {
  return LoadTexture(images[static_cast<std::size_t>(FindOrAddTexture(name))]);
}

void CheckName(SceneNotes& notes, const NameUse& use, const Names& sections, const Names& objects) {
  const std::string name = Quoted(use.name);
  std::error_code error;
  switch (use.kind) {
    case NameKind::kShader:
      if (!sections.contains(use.name)) Error(notes, use.place, "there is no shader " + name);
      break;
    case NameKind::kLinkedShader:
      if (FindShader(use.name) == kNone) Error(notes, use.place, "there is no shader " + name);
      break;
    case NameKind::kObject:
      if (!objects.contains(use.name)) Error(notes, use.place, "there is no object " + name);
      break;
    case NameKind::kSkyImage:
      if (use.name == kAnalyticSky) break;
      [[fallthrough]];
    case NameKind::kImage:
      if (!CanLoad(use.name)) Error(notes, use.place, "the image " + name + " cannot be found or read");
      break;
    case NameKind::kFolder:
      if (!fs::is_directory(use.name, error)) Warning(notes, use.place, "there is no folder " + name);
      break;
  }
}

// Shaders that the faces of a model ask for by usemtl and that no section defines.
void CheckModel(SceneNotes& notes, const NotedModel& model, const Names& sections) {
  const Part& part = objectTable[model.object].parts[model.part];
  std::set<std::int32_t> used;
  for (const Triangle& triangle : part.triangles) used.insert(triangle.shader);
  for (const Tetragon& tetragon : part.tetragons) used.insert(tetragon.shader);
  for (const std::int32_t shader : used) {
    if (shader < 0 || static_cast<std::size_t>(shader) >= shaders.size()) continue;
    const std::string& name = shaders[static_cast<std::size_t>(shader)].name;
    if (!sections.contains(name))
      Error(notes, model.place,
            "there is no shader " + Quoted(name) + " for faces of " + Quoted(model.fileName));
  }
}

// Lengths stay what they are; mirrors count as rigid.
bool IsRigid(const Mat4& matrix) {
  const auto& m = matrix.m;
  for (int i = 0; i < 3; ++i)
    for (int j = i; j < 3; ++j) {
      const float dot = m[0][i] * m[0][j] + m[1][i] * m[1][j] + m[2][i] * m[2][j];
      if (!(std::abs(dot - (i == j ? 1.0f : 0.0f)) < kRigidTolerance)) return false;
    }
  return m[3][0] == 0 && m[3][1] == 0 && m[3][2] == 0 && m[3][3] == 1;
}

// Hair takes its gloss from the fibre and asks no layer for an index of refraction.
bool HasStrands(const Object& object) {
  return std::any_of(object.parts.begin(), object.parts.end(),
                     [](const Part& part) { return !part.cylinders.empty(); });
}

bool DressesHair(const std::string& name) {
  const std::int32_t shader = FindShader(name);
  for (const Object& object : objectTable)
    for (const Instance& instance : object.instances)
      for (const Object& placed : objectTable)
        if (shader != kNone && instance.shader == shader && placed.name == instance.objectName &&
            HasStrands(placed))
          return true;
  return false;
}

void CheckLayer(SceneNotes& notes, const std::string& shader, const SurfaceShader& layer,
                const TextPlace& place) {
  for (const ElementRow& row : kElements) {
    const ImageSlot& slot = layer[row.element];
    if (!slot.imageName.empty() && IsBlack(slot.color))
      Warning(notes, place,
              "the image of " + Quoted(row.keyword) + " is multiplied by a black color and shows nothing");
  }
  const ImageSlot& ior = layer[Element::kIor];
  const bool mirrors = !IsBlack(layer[Element::kGlossy].color) || !IsBlack(layer[Element::kSpecular].color);
  if (layer.material == Material::kConductor && mirrors && ior.imageName.empty() &&
      std::abs(Mean(ior.color) - 1) < 1e-6f && !DressesHair(shader))
    Error(notes, place, "a conductor of ior 1 shows no glossy and no specular color");
}

void CheckWeights(SceneNotes& notes, const NotedShader& noted) {
  const auto& surfaces = noted.shader.surfaces;
  bool told = false;
  for (const Sideness other : {Sideness::kBack, Sideness::kFace}) {
    int layers = 0, weighted = 0;
    for (const SurfaceShader& surface : surfaces) {
      if (surface.sideness == other) continue;
      ++layers;
      weighted += Mean(surface[Element::kWeight].color) > 0;
    }
    if (layers < 2 || weighted == layers || told) continue;
    told = true;
    if (weighted == 0)
      Error(notes, noted.place, "several layers on one side and no weight: only the first shows");
    else
      Warning(notes, noted.place, "a layer without weight beside others never shows");
  }
}

void CheckShaders(SceneNotes& notes) {
  std::map<std::string, TextPlace> first;
  for (const NotedShader& noted : notes.shaders) {
    const std::string& name = noted.shader.name;
    if (!noted.named)
      Warning(notes, noted.place, "a shader without a name replaces the default of all objects");
    const auto [entry, isNew] = first.try_emplace(name, noted.place);
    if (!isNew)
      Warning(notes, noted.place,
              "shader " + Quoted(name) + " replaces that of " +
                  fs::path(entry->second.file).filename().string() + " line " +
                  std::to_string(entry->second.line));
    CheckWeights(notes, noted);
    for (std::size_t i = 0; i < noted.layers.size(); ++i)
      CheckLayer(notes, name, noted.shader.surfaces[i], noted.layers[i]);
  }
}

void CheckObjects(SceneNotes& notes) {
  Names names;
  for (const NotedObject& object : notes.objects) {
    if (object.hasObj && object.shader.line > 0)
      Error(notes, object.shader, "an object's shader does not reach the faces of its OBJ file");
    else if (object.hasOther && object.shader.line > 0)
      Error(notes, object.shader,
            "an object's shader does not reach its hair, fur and pictures: that of an instance does");
    if (!object.name.empty() && !names.insert(object.name).second)
      Warning(notes, object.place,
              "there is an object " + Quoted(object.name) + " already, which is what instances place");
  }
  for (const NotedInstance& noted : notes.instances)
    if (!IsRigid(noted.instance.matrix))
      Error(notes, noted.place,
            "the matrix is not rigid: distances inside are compared as if it did not scale");
}

void CheckCameras(SceneNotes& notes) {
  if (notes.cameras.empty()) Error(notes, {"camera", 0}, "there is no camera");
  for (const NotedCamera& noted : notes.cameras) {
    Camera& camera = cameras[noted.camera];
    CompletePoses(camera);
    if (noted.camera > 0) Warning(notes, noted.place, "only the first camera is rendered");
    if (camera.poseCount == 0) Error(notes, noted.place, "the camera has no pose");
    if (camera.width < 1 || camera.height < 1) Error(notes, noted.place, "the camera has no pixels");
    for (int i = 0; i < camera.poseCount; ++i) {
      const CameraPose& pose = camera.poses[i];
      const Vec3 view = pose.target - pose.position, side = Cross(view, pose.upVector);
      if (!(Dot(view, view) > 0))
        Error(notes, noted.place, "the target is where the camera is");
      else if (!(Dot(side, side) > 0))
        Error(notes, noted.place, "up_vector is zero, or along the view");
      if (camera.projection == Projection::kPerspective && !(pose.fieldOfView > 0 && pose.fieldOfView < 180))
        Error(notes, noted.place, "field_of_view is not between 0 and 180");
    }
  }
}

bool HasVertexData(const std::string& name) {
  const auto has = [&](const auto& sets) {
    return std::any_of(sets.begin(), sets.end(),
                       [&](const auto& set) { return set.name == name && !set.values.empty(); });
  };
  for (const Object& object : objectTable)
    for (const Part& part : object.parts)
      if (has(part.scalarSets) || has(part.uvSets) || has(part.vectorSets)) return true;
  return false;
}

constexpr std::uint32_t kRadianceChannels =
    kChannelLambertian | kChannelTransmissive | kChannelGlossy | kChannelSpecular | kChannelEmissive;
constexpr std::uint32_t kExactChannels = kChannelPosition | kChannelDepth | kChannelUserData;

const TextPlace& TypePlace(const NotedAov& noted) { return noted.type.line > 0 ? noted.type : noted.place; }

// Whether a light puts anything into such an AOV. The sky shows itself in each of them; emission that is seen
// in a mirror is the geometry light's alone.
bool LightRecords(AovOwner owner, std::uint32_t channel) {
  if (owner == AovOwner::kSky) return true;
  if (owner == AovOwner::kGeometryLight && (channel & kChannelSpecular) != 0) return true;
  return (channel & (kChannelLambertian | kChannelTransmissive | kChannelGlossy)) != 0;
}

// Cameras compare for equality with one channel, and scene text adds to the beauty bit: only a word of the
// host's own stands alone. Lights compare bits.
void CheckChannel(SceneNotes& notes, const NotedAov& noted) {
  const std::uint32_t channel = noted.aov.channel;
  const TextPlace& place = TypePlace(noted);
  if (noted.owner == AovOwner::kCamera) {
    if (channel != kChannelUserData)
      Error(notes, place,
            noted.type.line == 0
                ? "an AOV without a type stays black"
                : "a camera's AOV of this type stays black: only vertex data works in scene text");
    else if (!HasVertexData(noted.aov.userData))
      Warning(notes, place, "no model has vertex data named " + Quoted(noted.aov.userData));
  } else if (!LightRecords(noted.owner, channel)) {
    Warning(notes, place, "a light records nothing in an AOV of this type");
  }
}

void CheckStorage(SceneNotes& notes, const NotedAov& noted, Storage storage) {
  const std::uint32_t channel = noted.aov.channel;
  const std::string name = Quoted(noted.aov.image.fileName);
  if (storage == Storage::kUnwritable)
    return Error(notes, noted.image, "no image of this format can be written: " + name);
  if ((channel & kExactChannels) != 0) {
    if (storage == Storage::kBytes)
      Error(notes, noted.image, name + " keeps 8 bits from 0 to 1, too few for this type");
    if (storage == Storage::kHalf)
      Warning(notes, noted.image, name + " keeps half floats: three digits of this type");
    if (storage == Storage::kSharedExponent)
      Warning(notes, noted.image, name + " keeps 8 bits of each number, none of them negative");
  } else if (storage == Storage::kBytes &&
             (noted.owner != AovOwner::kCamera || (channel & (kRadianceChannels | kChannelLightPath)) != 0)) {
    Warning(notes, noted.image, name + " keeps 8 bits: light above 1 is cut off");
  }
}

}  // namespace

Storage ProbeStorage(const std::string& fileName) {
  // Numbers that tell the formats apart: below 0, and with more digits than a half float has.
  constexpr Vec3 kProbe = {-3.25f, 4097.0f, 0.5f};
  ImageBuffer written;
  Allocate(written, 2, 2, 3, 32, false);
  for (std::size_t i = 0; i < 4; ++i) WritePixel(written, kProbe, i);
  // The format's text may stand anywhere in the name, folders included.
  written.fileName = "probe-" + std::to_string(getpid()) + "-" + fileName;
  std::replace(written.fileName.begin(), written.fileName.end(), '/', '_');
  if (!SaveImage(written)) return Storage::kUnwritable;
  ImageBuffer read;
  read.allowPacked = false;
  const bool loaded = LoadImage(read, written.fileName);
  std::error_code error;
  fs::remove(written.fileName, error);
  if (!loaded || read.bits != 32) return Storage::kBytes;
  const Vec3 pixel = ReadPixel(read, 0);
  if (pixel == kProbe) return Storage::kExact;
  return pixel.x < 0 ? Storage::kHalf : Storage::kSharedExponent;
}

void CheckRecords(SceneNotes& notes) {
  Names sections = {std::string(kUndefinedShader)}, objects;
  for (const NotedShader& noted : notes.shaders) sections.insert(noted.shader.name);
  for (const Object& object : objectTable) objects.insert(object.name);
  for (const NameUse& use : notes.names) CheckName(notes, use, sections, objects);
  for (const NotedModel& model : notes.models) CheckModel(notes, model, sections);
  CheckShaders(notes);
  CheckObjects(notes);
  CheckCameras(notes);
  for (const NotedAov& noted : notes.aovs) CheckChannel(notes, noted);
}

void CheckOutputs(SceneNotes& notes) {
  Names names;
  for (const NotedAov& noted : notes.aovs) {
    const std::string& name = noted.aov.image.fileName;
    if (name.empty()) {
      Warning(notes, noted.place, "an AOV without an image is not written");
      continue;
    }
    if (!names.insert(name).second)
      Warning(notes, noted.image, "another AOV is written to " + Quoted(name) + " too");
    CheckStorage(notes, noted, ProbeStorage(name));
  }
}

void SortFindings(SceneNotes& notes) {
  std::stable_sort(notes.findings.begin(), notes.findings.end(), [](const Finding& a, const Finding& b) {
    return a.place.file != b.place.file ? a.place.file < b.place.file : a.place.line < b.place.line;
  });
}

}  // namespace zp
