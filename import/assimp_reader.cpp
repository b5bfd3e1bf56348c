// Files of the formats that the library assimp reads for us.

#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <algorithm>
#include <assimp/Importer.hpp>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>

#include "assimp_materials.h"
#include "core/box.h"
#include "model.h"
#include "vertex_colors.h"

namespace zp {
namespace {

enum class FileFormat { kObj, kPly, kStl, kFbx, kCollada, k3ds };
struct FormatRow {
  std::string_view extension;
  FileFormat format;
  bool tellsUp;       // which way is up, and its unit
  bool zIsUp;         // where it does not, unless the user says it
  bool screenColors;  // of its materials
};
constexpr FormatRow kFormats[] = {
    {".obj", FileFormat::kObj, false, false, true},    {".ply", FileFormat::kPly, false, true, true},
    {".stl", FileFormat::kStl, false, true, true},     {".fbx", FileFormat::kFbx, true, false, false},
    {".dae", FileFormat::kCollada, true, false, true}, {".3ds", FileFormat::k3ds, true, false, true}};

const FormatRow& FormatOf(const std::string& path) {
  std::string end = std::filesystem::path(path).extension().string();
  std::transform(end.begin(), end.end(), end.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const FormatRow& row : kFormats)
    if (end == row.extension) return row;
  throw ImportError("files of " + (end.empty() ? "no extension" : "'" + end + "'") +
                    " are not read: glb, gltf, fbx, obj, ply, stl, dae and 3ds are");
}

Mat4 MatrixOf(const aiMatrix4x4& m) {
  return {{{m.a1, m.a2, m.a3, m.a4},
           {m.b1, m.b2, m.b3, m.b4},
           {m.c1, m.c2, m.c3, m.c4},
           {m.d1, m.d2, m.d3, m.d4}}};
}
Vec3 VectorOf(const aiVector3D& v) { return {v.x, v.y, v.z}; }

Mat4 ScaleBy(float s) { return {{{s, 0, 0, 0}, {0, s, 0, 0}, {0, 0, s, 0}, {0, 0, 0, 1}}}; }

struct AssimpReader {
  const aiScene& scene;
  const FormatRow& row;
  ImportModel& model;
  std::map<std::string, std::size_t> nodeOfName = {};
  std::map<std::size_t, std::vector<unsigned>> meshesOfNode = {};
  std::vector<std::int32_t> meshOf = {};  // numbers of the model's meshes

  // Names that the library makes for the steps of one place.
  static std::string PlainName(const aiNode& node) {
    const std::string name = node.mName.C_Str();
    if (node.mParent == nullptr || name == "defaultobject") return {};  // names of the library's
    return name.substr(0, name.find("_$AssimpFbx$"));
  }

  void ReadNode(const aiNode& source, std::int32_t parent, int depth) {
    constexpr int kDeepest = 2000;
    if (depth > kDeepest) throw ImportError("its nodes stand in too many levels");
    const std::size_t index = model.nodes.size();
    ImportNode& node = model.nodes.emplace_back();
    node.name = PlainName(source);
    node.matrix = MatrixOf(source.mTransformation);
    nodeOfName.try_emplace(source.mName.C_Str(), index);
    meshesOfNode[index].assign(source.mMeshes, source.mMeshes + source.mNumMeshes);
    model.nodes[static_cast<std::size_t>(parent)].children.push_back(static_cast<std::int32_t>(index));
    for (unsigned i = 0; i < source.mNumChildren; ++i)
      ReadNode(*source.mChildren[i], static_cast<std::int32_t>(index), depth + 1);
  }

  void ReadColors(const aiMesh& source, ImportMesh& mesh) {
    if (!source.HasVertexColors(0)) return;
    std::vector<Vec3> colors;
    for (unsigned i = 0; i < source.mNumVertices; ++i) {
      const aiColor4D& c = source.mColors[0][i];
      colors.push_back(LinearColor({c.r, c.g, c.b}));
    }
    const bool multiplies = row.format != FileFormat::kPly && row.format != FileFormat::kStl;
    ApplyVertexColors(model, mesh, colors, multiplies, source.mName.C_Str());
  }

  bool ReadFaces(const aiMesh& source, ImportMesh& mesh) {
    bool hasOthers = false;
    for (unsigned f = 0; f < source.mNumFaces; ++f) {
      const aiFace& face = source.mFaces[f];
      if (face.mNumIndices < 3) {
        hasOthers = true;
        continue;
      }
      mesh.faceSizes.push_back(face.mNumIndices);
      for (unsigned k = 0; k < face.mNumIndices; ++k) {
        if (face.mIndices[k] >= source.mNumVertices)
          throw ImportError("a face has a corner that is not there");
        mesh.corners.push_back(face.mIndices[k]);
      }
    }
    if (hasOthers) AddLoss(model, "points and lines are left out");
    return !mesh.faceSizes.empty();
  }

  ImportMesh ReadMesh(const aiMesh& source) {
    ImportMesh mesh;
    for (unsigned i = 0; i < source.mNumVertices; ++i)
      mesh.positions.push_back(VectorOf(source.mVertices[i]));
    for (unsigned i = 0; source.HasNormals() && i < source.mNumVertices; ++i)
      mesh.normals.push_back(VectorOf(source.mNormals[i]));
    for (unsigned set = 0; set < source.GetNumUVChannels(); ++set) {
      std::vector<Vec2>& uvs = mesh.uvs.emplace_back();
      for (unsigned i = 0; i < source.mNumVertices; ++i)
        uvs.push_back({source.mTextureCoords[set][i].x, source.mTextureCoords[set][i].y});
    }
    mesh.surface = static_cast<std::int32_t>(source.mMaterialIndex);
    if (static_cast<std::size_t>(mesh.surface) >= model.surfaces.size())
      throw ImportError("a mesh has no material");
    return mesh;
  }

  // By the places of its bones: in the coordinates of the file.
  void Bend(const aiMesh& source, ImportMesh& mesh, const std::vector<Mat4>& places) {
    SkinWeights skin;
    skin.joints.resize(mesh.positions.size());
    skin.weights.resize(mesh.positions.size());
    std::vector<Mat4> joints(source.mNumBones);
    for (unsigned b = 0; b < source.mNumBones; ++b) {
      const aiBone& bone = *source.mBones[b];
      const auto node = nodeOfName.find(bone.mName.C_Str());
      if (node == nodeOfName.end()) throw ImportError("a mesh has a bone that is not there");
      joints[b] = Multiply(places[node->second], MatrixOf(bone.mOffsetMatrix));
      for (unsigned w = 0; w < bone.mNumWeights; ++w) {
        const aiVertexWeight& weight = bone.mWeights[w];
        if (weight.mVertexId >= mesh.positions.size()) continue;
        auto& weights = skin.weights[weight.mVertexId];
        const auto least = std::min_element(weights.begin(), weights.end());
        if (!(weight.mWeight > *least)) continue;
        *least = weight.mWeight;
        skin.joints[weight.mVertexId][static_cast<std::size_t>(least - weights.begin())] =
            static_cast<std::int32_t>(b);
      }
    }
    ApplySkin(mesh, joints, skin);
  }

  void PlaceMeshes() {
    const std::vector<Mat4> places = NodePlaces(model);
    meshOf.assign(scene.mNumMeshes, kNone);
    for (const auto& [index, numbers] : meshesOfNode)
      for (const unsigned number : numbers) {
        if (number >= scene.mNumMeshes) throw ImportError("a node has a mesh that is not there");
        const aiMesh& source = *scene.mMeshes[number];
        if (meshOf[number] == kNone || source.HasBones()) {
          ImportMesh mesh = ReadMesh(source);
          if (!ReadFaces(source, mesh)) continue;
          if (source.HasBones()) Bend(source, mesh, places);
          ReadColors(source, mesh);
          meshOf[number] = static_cast<std::int32_t>(model.meshes.size());
          model.meshes.push_back(std::move(mesh));
        }
        model.nodes[source.HasBones() ? 0 : index].meshes.push_back(meshOf[number]);
      }
  }

  Mat4 PlaceOf(const aiString& name, const std::vector<Mat4>& places) const {
    const auto node = nodeOfName.find(name.C_Str());
    return node == nodeOfName.end() ? Mat4{} : places[node->second];
  }

  void ReadCameras(const std::vector<Mat4>& places) {
    for (unsigned i = 0; i < scene.mNumCameras; ++i) {
      const aiCamera& source = *scene.mCameras[i];
      const Mat4 place = PlaceOf(source.mName, places);
      ImportCamera camera;
      camera.name = source.mName.length > 0 ? source.mName.C_Str() : "camera";
      camera.position = TransformPoint(place, VectorOf(source.mPosition));
      camera.forward = UnitVector(TransformDirection(place, VectorOf(source.mLookAt)));
      camera.up = UnitVector(TransformDirection(place, VectorOf(source.mUp)));
      if (source.mAspect > 0) camera.aspect = source.mAspect;
      if (source.mHorizontalFOV > 0.001f) camera.fieldOfView = source.mHorizontalFOV * 180 / kPi;
      model.cameras.push_back(std::move(camera));
    }
  }

  Vec3 Middle(const std::vector<Mat4>& places) const {
    Box box;
    for (std::size_t i = 0; i < model.nodes.size(); ++i)
      for (const std::int32_t mesh : model.nodes[i].meshes)
        for (const Vec3 position : model.meshes[static_cast<std::size_t>(mesh)].positions)
          Grow(box, TransformPoint(places[i], position));
    return IsEmpty(box) ? Vec3{} : Center(box);
  }

  // Their strength has no unit in these formats. What shines from a place is as bright in the middle of the
  // model as its colour says.
  void ReadLights(const std::vector<Mat4>& places) {
    const Vec3 middle = Middle(places);
    for (unsigned i = 0; i < scene.mNumLights; ++i) {
      const aiLight& source = *scene.mLights[i];
      const Mat4 place = PlaceOf(source.mName, places);
      ImportLight light;
      light.name = source.mName.length > 0 ? source.mName.C_Str() : "light";
      if (source.mType != aiLightSource_POINT && source.mType != aiLightSource_SPOT &&
          source.mType != aiLightSource_DIRECTIONAL) {
        AddLoss(model, "the light \"" + light.name + "\" of no direction or of an area is left out");
        continue;
      }
      light.kind = source.mType == aiLightSource_DIRECTIONAL ? LightKind::kParallel
                   : source.mType == aiLightSource_SPOT      ? LightKind::kSpot
                                                             : LightKind::kPoint;
      light.position = TransformPoint(place, VectorOf(source.mPosition));
      light.direction = UnitVector(TransformDirection(place, VectorOf(source.mDirection)));
      const Vec3 color =
          MaxOf({source.mColorDiffuse.r, source.mColorDiffuse.g, source.mColorDiffuse.b}, kBlack);
      const float most = MaxOf(color.x, MaxOf(color.y, color.z));
      if (!(most > 0) || !std::isfinite(most)) continue;
      const Vec3 way = TransformDirection(model.toScene, light.position - middle);
      light.color = color * (1 / most) * (light.kind == LightKind::kParallel ? 1.0f : Dot(way, way));
      light.inner = source.mAngleInnerCone * 90 / kPi;  // whole angles there
      light.outer = source.mAngleOuterCone * 90 / kPi;
      if (row.format == FileFormat::kCollada) {  // which tells the angle where the light ends
        light.outer = light.inner;
        light.inner *= 0.9f;
      }
      AddLoss(
          model,
          "the strength of lights has no unit: each is as bright as its colour in the middle of the model");
      model.lights.push_back(std::move(light));
    }
  }

  // A row of the file's own settings.
  double Setting(const char* name, double fallback) const {
    if (scene.mMetaData == nullptr) return fallback;
    double number = fallback;
    if (scene.mMetaData->Get(name, number)) return number;
    if (float single = 0; scene.mMetaData->Get(name, single)) return single;
    if (std::int32_t integer = 0; scene.mMetaData->Get(name, integer)) return integer;
    return fallback;
  }

  // The file's own axes: to the right, upwards, and from front to back.
  Mat4 FbxAxes() const {
    const auto axis = [&](const char* name, int fallback) {
      return std::clamp(static_cast<int>(Setting(name, fallback)), 0, 2);
    };
    const auto sign = [&](const char* name) { return Setting(name, 1) < 0 ? -1.0f : 1.0f; };
    const int right = axis("CoordAxis", 0), up = axis("UpAxis", 1), front = axis("FrontAxis", 2);
    if (right == up || up == front || right == front) return kYToZ;
    Mat4 axes = {{{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 1}}};
    axes.m[0][right] = sign("CoordAxisSign");
    axes.m[1][front] = -sign("FrontAxisSign");
    axes.m[2][up] = sign("UpAxisSign");
    return axes;
  }

  void Read(const std::string& path) {
    const MaterialRules rules = {row.screenColors, std::filesystem::path(path).parent_path().string()};
    for (unsigned i = 0; i < scene.mNumMaterials; ++i)
      ReadAssimpMaterial(scene, *scene.mMaterials[i], rules, model);
    if (row.format == FileFormat::kPly || row.format == FileFormat::kStl)
      for (ImportSurface& surface : model.surfaces)
        if (surface.basePicture.picture == kNone) surface.base = {0.8f, 0.8f, 0.8f};
    model.nodes.emplace_back();
    ReadNode(*scene.mRootNode, 0, 0);
    PlaceMeshes();
    const std::vector<Mat4> places = NodePlaces(model);
    ReadCameras(places);
    ReadLights(places);
    if (scene.mNumAnimations > 0)
      AddLoss(model, std::to_string(scene.mNumAnimations) +
                         (scene.mNumAnimations == 1 ? " animation is" : " animations are") +
                         " left out: the model stands as its nodes are written");
  }
};

// Files of materials that an OBJ file names and that are not there.
void FindMaterialFiles(const std::string& path, ImportModel& model) {
  std::ifstream stream(path);
  std::string line;
  while (std::getline(stream, line)) {
    if (!line.starts_with("mtllib ")) continue;
    std::string name = line.substr(7);
    while (!name.empty() && std::isspace(static_cast<unsigned char>(name.back())) != 0) name.pop_back();
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::path(path).parent_path() / name, error))
      AddLoss(model, "the file of materials \"" + name + "\" is not there");
  }
}

}  // namespace

ImportModel ReadByAssimp(const std::string& path, const ReadSettings& settings) {
  const FormatRow& row = FormatOf(path);
  ReadBytes(path);  // says what is wrong where the library would not
  Assimp::Importer importer;
  unsigned steps = aiProcess_JoinIdenticalVertices | aiProcess_GenSmoothNormals |
                   aiProcess_ValidateDataStructure | aiProcess_FindInvalidData;
  if (row.format == FileFormat::kStl) {  // its normals are those of facets
    importer.SetPropertyInteger(AI_CONFIG_PP_RVC_FLAGS, aiComponent_NORMALS);
    steps |= aiProcess_RemoveComponent;
    steps &= ~unsigned{aiProcess_ValidateDataStructure};  // which takes an empty solid for damage
  }
  constexpr float kSmoothAngle = 40;  // degrees, of what has no normals
  importer.SetPropertyFloat(AI_CONFIG_PP_GSN_MAX_SMOOTHING_ANGLE, kSmoothAngle);
  const aiScene* scene = importer.ReadFile(path, steps);
  if (scene == nullptr || scene->mRootNode == nullptr) {
    const std::string reason = importer.GetErrorString();
    throw ImportError("it is damaged or of another format" + (reason.empty() ? "" : " (" + reason + ")"));
  }
  ImportModel model;
  AssimpReader reader{*scene, row, model};
  const bool zIsUp = !row.tellsUp && settings.upIsZ.value_or(row.zIsUp);
  const double unit = row.format == FileFormat::kFbx ? reader.Setting("UnitScaleFactor", 1) / 100
                      : row.tellsUp && row.format != FileFormat::k3ds ? 1.0
                                                                      : static_cast<double>(settings.unit);
  const Mat4 axes = row.format == FileFormat::kFbx ? reader.FbxAxes() : zIsUp ? Mat4{} : kYToZ;
  model.toScene = Multiply(axes, ScaleBy(static_cast<float>(unit)));
  reader.Read(path);
  if (row.format == FileFormat::kObj) FindMaterialFiles(path, model);
  return model;
}

}  // namespace zp
