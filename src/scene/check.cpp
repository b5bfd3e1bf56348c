#include "scene/check.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "core/files.h"
#include "core/index.h"
#include "core/settings.h"
#include "geometry/motion.h"
#include "geometry/object.h"
#include "lights/lights.h"
#include "scene/check_parts.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

constexpr float kRigidTolerance = 1e-3f;  // matrices are written with a few digits

using Names = std::set<std::string, std::less<>>;

// What the text defines, by name.
struct Definitions {
  std::vector<std::string_view> shaders;  // of sections, and the default
  std::vector<std::string_view> objects;
  Names shaderNames, objectNames, tableNames;                   // the last: whatever is in the shader table
  std::map<std::string, PictureProblem, std::less<>> pictures;  // that were tried
  std::map<std::string, std::vector<std::string>> files;        // of folders
};

Definitions ReadDefinitions(const SceneNotes& notes) {
  Definitions known;
  known.shaderNames.emplace(kUndefinedShader);
  for (const NotedShader& noted : notes.shaders) known.shaderNames.insert(noted.shader.name);
  for (const Object& object : objectTable)
    if (!object.name.empty()) known.objectNames.insert(object.name);
  for (const Shader& shader : shaders) known.tableNames.insert(shader.name);
  known.shaders.assign(known.shaderNames.begin(), known.shaderNames.end());
  known.objects.assign(known.objectNames.begin(), known.objectNames.end());
  return known;
}

// The names of the files of a folder, which is listed once.
const std::vector<std::string>& FilesOf(Definitions& known, const fs::path& folder) {
  const auto [entry, isNew] = known.files.try_emplace(folder.string());
  if (!isNew || KindOfFile(folder.string()) != FileKind::kFolder) return entry->second;
  std::error_code error;
  for (fs::directory_iterator file(folder, error); !error && file != fs::directory_iterator();
       file.increment(error))
    entry->second.push_back(file->path().filename().string());
  std::sort(entry->second.begin(), entry->second.end());
  return entry->second;
}

// The picture file whose name is nearest to a missing one's, in the folders that it is sought in.
std::string NearestFile(SceneNotes& notes, Definitions& known, const std::string& name) {
  constexpr std::size_t kMostFolders = 20;
  const fs::path wanted(name);
  const std::string file = wanted.filename().string();
  for (const std::string& folder : imageSearchPaths) {
    if (known.files.size() >= kMostFolders) break;
    const std::vector<std::string>& files = FilesOf(known, fs::path(".") / folder / wanted.parent_path());
    const std::string_view nearest = Suggest(notes, file, {files.begin(), files.end()});
    if (!nearest.empty()) return (wanted.parent_path() / nearest).string();
  }
  return {};
}

PictureProblem TryPicture(Definitions& known, const std::string& name) {
  const auto [entry, isNew] = known.pictures.try_emplace(name, PictureProblem::kSound);
  ImageBuffer& image = At(images, FindOrAddTexture(name));
  if (isNew && !LoadTexture(image)) entry->second = image.problem;
  return entry->second;
}

void CheckImage(SceneNotes& notes, const NameUse& use, Definitions& known) {
  const PictureProblem problem = TryPicture(known, use.name);
  if (problem == PictureProblem::kSound) return;
  const FindingCode code = CodeOf(problem);
  Find(notes, use.place, code, "the image " + Quoted(use.name) + ' ' + std::string(ProblemText(problem)),
       code == FindingCode::kMissingImage ? NearestFile(notes, known, use.name) : std::string());
}

void CheckName(SceneNotes& notes, const NameUse& use, Definitions& known) {
  const std::string name = Quoted(use.name);
  switch (use.kind) {
    case NameKind::kShader:
    case NameKind::kLinkedShader: {
      const Names& names = use.kind == NameKind::kShader ? known.shaderNames : known.tableNames;
      if (!names.contains(use.name))
        Find(notes, use.place, FindingCode::kUnknownShader, "there is no shader " + name,
             Suggest(notes, use.name, known.shaders));
      break;
    }
    case NameKind::kObject:
      if (!known.objectNames.contains(use.name))
        Find(notes, use.place, FindingCode::kUnknownObject, "there is no object " + name,
             Suggest(notes, use.name, known.objects));
      break;
    case NameKind::kSkyImage:
      if (use.name != kAnalyticSky) CheckImage(notes, use, known);
      break;
    case NameKind::kImage:
      CheckImage(notes, use, known);
      break;
    case NameKind::kFolder:
      if (KindOfFile(use.name) != FileKind::kFolder)
        Find(notes, use.place, FindingCode::kMissingFolder, "there is no folder " + name);
      break;
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

// Of each shader, whether an instance gives it to strands, or in format 2 their object.
std::vector<bool> FindHairShaders() {
  Names strands;
  for (const Object& object : objectTable)
    if (HasStrands(object)) strands.insert(object.name);
  std::vector<bool> dress(shaders.size());
  for (const Object& object : objectTable)
    for (const Instance& instance : object.instances)
      if (instance.shader != kNone && strands.contains(instance.objectName.Text()))
        At(dress, instance.shader) = true;
  if (settings.format >= 2)
    for (const Object& object : objectTable)
      if (HasStrands(object)) At(dress, object.shader) = true;
  return dress;
}

// A picture may darken what is above 1.
bool IsAboveOne(const SurfaceShader& layer) {
  const ImageSlot& reflected = layer[Element::kLambertian];
  const ImageSlot& passed = layer[Element::kTransmissive];
  Vec3 sum;
  if (reflected.imageName.empty()) sum += reflected.color;
  if (passed.imageName.empty()) sum += passed.color;
  constexpr float kMost = 1.0001f;  // colors are written with a few digits
  const auto above = [](Vec3 c) { return c.x > kMost || c.y > kMost || c.z > kMost; };
  const auto mirrors = [&](const ImageSlot& slot) { return slot.imageName.empty() && above(slot.color); };
  return above(sum) || mirrors(layer[Element::kGlossy]) || mirrors(layer[Element::kSpecular]);
}

void CheckLayer(SceneNotes& notes, bool dressesHair, const SurfaceShader& layer, const TextPlace& place) {
  for (const ElementRow& row : kElements) {
    const ImageSlot& slot = layer[row.element];
    if (!slot.imageName.empty() && IsBlack(slot.color))
      Find(notes, place, FindingCode::kBlackImage,
           "the image of " + Quoted(row.keyword) + " is multiplied by a black color and shows nothing");
  }
  if (IsAboveOne(layer))
    Find(notes, place, FindingCode::kHighAlbedo,
         "colors above 1 send back more light than arrives: pictures get brighter with each bounce");
  const ImageSlot& ior = layer[Element::kIor];
  const bool mirrors = !IsBlack(layer[Element::kGlossy].color) || !IsBlack(layer[Element::kSpecular].color);
  if (layer.material == Material::kConductor && mirrors && ior.imageName.empty() &&
      std::abs(Mean(ior.color) - 1) < 1e-6f && !dressesHair)
    Find(notes, place, FindingCode::kNoIor, "a conductor of ior 1 shows no glossy and no specular color");
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
      Find(notes, noted.place, FindingCode::kNoWeights,
           "several layers on one side and no weight: only the first shows");
    else
      Find(notes, noted.place, FindingCode::kUnweightedLayer,
           "a layer without weight beside others never shows");
  }
}

void CheckShaders(SceneNotes& notes) {
  std::map<std::string, TextPlace> first;
  const std::vector<bool> hairShaders = FindHairShaders();
  for (const NotedShader& noted : notes.shaders) {
    const std::string& name = noted.shader.name;
    if (!noted.named)
      Find(notes, noted.place, FindingCode::kUnnamedShader,
           "a shader without a name replaces the default of all objects");
    const auto [entry, isNew] = first.try_emplace(name, noted.place);
    if (!isNew)
      Find(notes, noted.place, FindingCode::kReplaced,
           "shader " + Quoted(name) + " replaces that of " +
               fs::path(entry->second.file).filename().string() + " line " +
               std::to_string(entry->second.line));
    CheckWeights(notes, noted);
    const bool byHeight = settings.format >= 2 && noted.vector.line == 0;
    const TextPlace& displaced = byHeight ? noted.height : noted.vector;
    if (displaced.line > 0 && noted.shader.geometry.smoothAngle < 0)
      Find(notes, displaced, FindingCode::kKeptNormals,
           "a displaced surface with a \"smooth_angle\" below 0 keeps the normals that it had, and shades as "
           "flat",
           "smooth_angle 60");
    const std::int32_t index = FindShader(name);
    const bool dressesHair = index != kNone && At(hairShaders, index);
    for (std::size_t i = 0; i < noted.layers.size(); ++i)
      CheckLayer(notes, dressesHair, noted.shader.surfaces[i], noted.layers[i]);
  }
}

void CheckObjects(SceneNotes& notes) {
  Names names;
  for (const NotedObject& object : notes.objects) {
    const bool unreached = object.shader.line > 0 && settings.format < 2;
    if (unreached && object.hasObj)
      Find(notes, object.shader, FindingCode::kUnreachedShader,
           "an object's shader does not reach the faces of its OBJ file; in format 2 it does");
    else if (unreached && object.hasOther)
      Find(notes, object.shader, FindingCode::kUnreachedShader,
           "an object's shader does not reach its hair, fur and pictures: that of an instance does, and "
           "in format 2 both do");
    if (!object.name.empty() && !names.insert(object.name).second)
      Find(notes, object.place, FindingCode::kReplaced,
           "there is an object " + Quoted(object.name) + " already, which is what instances place");
  }
  for (const NotedInstance& noted : notes.instances)
    if (settings.format < 2 && !IsRigid(noted.instance.matrix))
      Find(notes, noted.place, FindingCode::kNotRigid,
           "the matrix is not rigid: distances inside are compared as if it did not scale; in format 2 they "
           "are right");
  for (const NotedInstance& noted : notes.instances) {
    const InstanceMotion* motion = MotionOf(noted.instance);
    if (settings.format < 2 || motion == nullptr) continue;
    const std::string problem = MotionProblem(noted.instance.matrix, motion->close);
    if (!problem.empty())
      Find(notes, noted.place, FindingCode::kUnfitEnd,
           "the instance stands still, of matrix and matrix_end: " + problem);
  }
}

// What no pose states has no other to come from.
void CheckPoseFields(SceneNotes& notes, const NotedCamera& noted) {
  constexpr std::pair<PoseField, std::string_view> kNeeded[] = {
      {kPosePosition, "position"}, {kPoseTarget, "target"}, {kPoseUpVector, "up_vector"}};
  const Camera& camera = cameras[noted.camera];
  for (const auto& [field, keyword] : kNeeded)
    if (camera.poseCount > 0 && ((camera.poseWritten[0] | camera.poseWritten[1]) & field) == 0)
      Find(notes, noted.place, FindingCode::kMissingKeyword,
           "no \"pose\" states " + Quoted(keyword) + ", which has no default");
}

void CheckCameras(SceneNotes& notes) {
  if (notes.cameras.empty()) Find(notes, {"camera", 0}, FindingCode::kNoCamera, "there is no camera");
  for (const NotedCamera& noted : notes.cameras) {
    Camera& camera = cameras[noted.camera];
    CheckPoseFields(notes, noted);
    if (noted.exposure.line > 0 && settings.format < 2)
      Find(notes, noted.exposure,
           camera.exposure == kWhite ? FindingCode::kDefaultWithoutEffect : FindingCode::kWithoutEffect,
           "exposure: has no effect in format 1; in format 2 it acts on files of 8 bits");
    CompletePoses(camera);
    if (noted.camera > 0 && (settings.format < 2 || camera.name.empty()))
      Find(notes, noted.place, FindingCode::kIdleCamera,
           "only the first camera is rendered, unless --camera chooses another");
    if (camera.poseCount == 0) Find(notes, noted.place, FindingCode::kCameraPose, "the camera has no pose");
    if (camera.width < 1 || camera.height < 1)
      Find(notes, noted.place, FindingCode::kNoPixels, "the camera has no pixels");
    for (int i = 0; i < camera.poseCount; ++i) {
      const CameraPose& pose = camera.poses[i];
      const Vec3 view = pose.target - pose.position, side = Cross(view, pose.upVector);
      if (!(Dot(view, view) > 0))
        Find(notes, noted.place, FindingCode::kCameraPose, "the target is where the camera is");
      else if (!(Dot(side, side) > 0))
        Find(notes, noted.place, FindingCode::kCameraPose, "up_vector is zero, or along the view");
      if (camera.projection == Projection::kPerspective && !(pose.fieldOfView > 0 && pose.fieldOfView < 180))
        Find(notes, noted.place, FindingCode::kCameraPose, "field_of_view is not between 0 and 180");
    }
  }
}

Names FindVertexData() {
  Names names;
  const auto add = [&](const auto& sets) {
    for (const auto& set : sets)
      if (!set.values.empty() && !names.contains(set.name)) names.insert(set.name);
  };
  for (const Object& object : objectTable)
    for (const Part& part : object.parts) {
      add(part.scalarSets);
      add(part.uvSets);
      add(part.vectorSets);
    }
  return names;
}

// A picture by a set that no model has is read by the first one.
void CheckUvSets(SceneNotes& notes) {
  if (settings.format < 2) return;
  Names sets;
  for (const Object& object : objectTable)
    for (const Part& part : object.parts)
      for (const auto& set : part.uvSets) sets.insert(set.name);
  for (const NotedSlot& noted : notes.slots) {
    const std::string& name = noted.slot.uvSetName;
    if (noted.uvSet.line > 0 && !name.empty() && !sets.contains(name))
      Find(notes, noted.uvSet, FindingCode::kUnknownUvSet,
           "no model has a set of texture coordinates named " + Quoted(name) + ": the first one counts",
           Suggest(notes, name, {sets.begin(), sets.end()}));
  }
}

constexpr std::uint32_t kRadianceChannels =
    kChannelLambertian | kChannelTransmissive | kChannelGlossy | kChannelSpecular | kChannelEmissive;
constexpr std::uint32_t kExactChannels =
    kChannelPosition | kChannelDepth | kChannelUserData | kChannelSamples;

const TextPlace& TypePlace(const NotedAov& noted) { return noted.type.line > 0 ? noted.type : noted.place; }

// Whether a light puts anything into such an AOV. The sky shows itself in each of them; emission that is seen
// in a mirror is the geometry light's alone.
bool LightRecords(AovOwner owner, std::uint32_t channel) {
  if (owner == AovOwner::kSky) return true;
  if (owner == AovOwner::kGeometryLight && (channel & kChannelSpecular) != 0) return true;
  return (channel & (kChannelLambertian | kChannelTransmissive | kChannelGlossy)) != 0;
}

// Cameras compare for equality with one channel, and scene text of format 1 adds to the beauty bit: there
// only a word of the host's own stands alone. Lights compare bits.
void CheckChannel(SceneNotes& notes, const NotedAov& noted, const Names& vertexData) {
  const std::uint32_t channel = noted.aov.channel;
  const TextPlace& place = TypePlace(noted);
  if (noted.owner == AovOwner::kCamera) {
    if (channel == noted.aov.lastType && noted.earlierType.line > 0)
      Find(notes, place, FindingCode::kReplaced,
           "this type replaces that of line " + std::to_string(noted.earlierType.line) +
               ": a camera's AOV records one");
    if (noted.type.line == 0)
      Find(notes, place, FindingCode::kBlackAov, "an AOV without a type stays black");
    else if (channel != noted.aov.lastType)
      Find(notes, place, FindingCode::kBlackAov,
           "a camera's AOV of this type stays black: only vertex data works in scene text of format 1",
           "format 2");
    else if (channel == kChannelUserData && !vertexData.contains(noted.aov.userData))
      Find(notes, place, FindingCode::kEmptyAov,
           "no model has vertex data named " + Quoted(noted.aov.userData),
           Suggest(notes, noted.aov.userData, {vertexData.begin(), vertexData.end()}));
  } else if (!LightRecords(noted.owner, channel)) {
    Find(notes, place, FindingCode::kEmptyAov, "a light records nothing in an AOV of this type");
  }
}

void CheckStorage(SceneNotes& notes, const NotedAov& noted, Storage storage) {
  const std::uint32_t channel = noted.aov.channel;
  const std::string name = Quoted(noted.aov.image.fileName);
  if (storage == Storage::kUnwritable)
    return Find(notes, noted.image, FindingCode::kUnknownFormat,
                "no image of this format can be written: " + name);
  if ((channel & kExactChannels) != 0) {
    if (storage == Storage::kBytes)
      Find(notes, noted.image, FindingCode::kFewBits,
           name + " keeps 8 bits from 0 to 1, too few for this type");
    if (storage == Storage::kHalf)
      Find(notes, noted.image, FindingCode::kRoundedAov,
           name + " keeps half floats: three digits of this type");
    if (storage == Storage::kSharedExponent)
      Find(notes, noted.image, FindingCode::kRoundedAov,
           name + " keeps 8 bits of each number, none of them negative");
  } else if (storage == Storage::kBytes && settings.format < 2 &&
             (noted.owner != AovOwner::kCamera || (channel & (kRadianceChannels | kChannelLightPath)) != 0)) {
    Find(notes, noted.image, FindingCode::kClippedAov,
         name + " keeps 8 bits: light above 1 is cut off; in format 2 it is a picture for the eye");
  }
}

}  // namespace

Storage ProbeStorage(const std::string& fileName) {
  // Numbers that tell the formats apart: below 0, and with more digits than a half float has. A size that
  // every format takes.
  constexpr Vec3 kProbe = {-3.25f, 4097.0f, 0.5f};
  constexpr int kSide = 64;
  ImageBuffer written;
  Allocate(written, kSide, kSide, 3, 32, false);
  for (std::size_t i = 0; i < kSide * kSide; ++i) WritePixel(written, kProbe, i);
  written.fileName = ".zp-probe";
  ImageBuffer read;
  read.allowPacked = false;
  if (!WriteAndReadBack(written, fileName, read)) return Storage::kUnwritable;
  if (!read.loaded || read.bits != 32) return Storage::kBytes;
  const Vec3 pixel = ReadPixel(read, 0);
  if (pixel == kProbe) return Storage::kExact;
  return pixel.x < 0 ? Storage::kHalf : Storage::kSharedExponent;
}

void CheckRecords(SceneNotes& notes) {
  if (settings.format >= 2)
    std::erase_if(notes.findings, [](const Finding& finding) { return finding.ofFormat1; });
  Definitions known = ReadDefinitions(notes);
  for (const NameUse& use : notes.names) CheckName(notes, use, known);
  std::vector<bool> sections;
  sections.reserve(shaders.size());
  Names defined;
  for (const NotedShader& noted : notes.shaders) defined.insert(noted.shader.name);
  for (const Shader& shader : shaders) sections.push_back(defined.contains(shader.name));
  const SceneGraph graph = ReadGraph();
  CheckModels(notes, graph, sections);
  CheckGraph(notes, graph);
  CheckShaders(notes);
  CheckPictures(notes);
  CheckUvSets(notes);
  CheckObjects(notes);
  CheckCameras(notes);
  CheckRenderer(notes, graph);
  CheckFormat(notes, graph);
  for (NotedAov& noted : notes.aovs)
    if (noted.owner == AovOwner::kCamera) SettleChannel(noted.aov);
  const Names vertexData = FindVertexData();
  for (const NotedAov& noted : notes.aovs) CheckChannel(notes, noted, vertexData);
}

void CheckOutputs(SceneNotes& notes) {
  Names names;
  for (const NotedAov& noted : notes.aovs) {
    const std::string& name = noted.aov.image.fileName;
    if (name.empty()) {
      Find(notes, noted.place, FindingCode::kUnwrittenAov,
           "an AOV without an image is written in a file of layers alone (render --output NAME.exr)");
      continue;
    }
    // In format 2 only the rendered camera writes: the others may use the same names.
    const bool apart = settings.format >= 2 && noted.camera > 0;
    if (!names.insert(apart ? name + '\n' + std::to_string(noted.camera) : name).second)
      Find(notes, noted.image, FindingCode::kAovOverwritten,
           "another AOV is written to " + Quoted(name) + " too");
    CheckStorage(notes, noted, ProbeStorage(name));
  }
}

void SortFindings(SceneNotes& notes) {
  std::stable_sort(notes.findings.begin(), notes.findings.end(), [](const Finding& a, const Finding& b) {
    return a.place.file != b.place.file ? a.place.file < b.place.file : a.place.line < b.place.line;
  });
}

}  // namespace zp
