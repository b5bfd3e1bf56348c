// The scene of a glTF 2 file.

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <utility>

#include "gltf_file.h"
#include "gltf_materials.h"
#include "gltf_primitive.h"
#include "model.h"
#include "vertex_colors.h"

namespace zp {
namespace {

using nlohmann::json;

constexpr const char* kReadExtensions[] = {"KHR_materials_transmission",
                                           "KHR_materials_volume",
                                           "KHR_materials_ior",
                                           "KHR_materials_emissive_strength",
                                           "KHR_materials_specular",
                                           "KHR_materials_clearcoat",
                                           "KHR_materials_unlit",
                                           "KHR_materials_pbrSpecularGlossiness",
                                           "KHR_materials_sheen",
                                           "KHR_materials_iridescence",
                                           "KHR_materials_anisotropy",
                                           "KHR_materials_dispersion",
                                           "KHR_materials_diffuse_transmission",
                                           "KHR_materials_variants",
                                           "KHR_texture_transform",
                                           "KHR_texture_basisu",
                                           "EXT_texture_webp",
                                           "EXT_texture_avif",
                                           "MSFT_texture_dds",
                                           "KHR_lights_punctual",
                                           "KHR_draco_mesh_compression",
                                           "KHR_mesh_quantization",
                                           "EXT_mesh_gpu_instancing",
                                           "KHR_xmp_json_ld",
                                           "KHR_animation_pointer",
                                           "KHR_node_visibility"};

// What a scene cannot be read without.
void RefuseUnknown(const json& text) {
  for (const json& extension : text.value("extensionsRequired", json::array())) {
    const auto name = extension.get<std::string>();
    if (std::find(std::begin(kReadExtensions), std::end(kReadExtensions), name) == std::end(kReadExtensions))
      throw ImportError("it needs the extension " + name + ", which is not read");
  }
}

Mat4 Scaled(const Mat4& turn, Vec3 scale, Vec3 move) {
  Mat4 matrix;
  const float scales[] = {scale.x, scale.y, scale.z}, moves[] = {move.x, move.y, move.z};
  for (int row = 0; row < 3; ++row) {
    for (int column = 0; column < 3; ++column) matrix.m[row][column] = turn.m[row][column] * scales[column];
    matrix.m[row][3] = moves[row];
  }
  return matrix;
}

Mat4 TurnOf(const float* q) {
  const float length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  if (!(length > 0)) return {};
  const float x = q[0] / length, y = q[1] / length, z = q[2] / length, w = q[3] / length;
  return {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w), 0},
           {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w), 0},
           {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y), 0},
           {0, 0, 0, 1}}};
}

// As many numbers as the fallback has, or the fallback.
template <std::size_t kCount>
std::array<float, kCount> NumbersOf(const json& object, const char* name,
                                    std::array<float, kCount> fallback) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_array() || found->size() != kCount) return fallback;
  return found->get<std::array<float, kCount>>();
}

Mat4 FromColumns(const float* numbers) {
  Mat4 matrix;
  for (int row = 0; row < 4; ++row)
    for (int column = 0; column < 4; ++column) matrix.m[row][column] = numbers[4 * column + row];
  return matrix;
}

Mat4 MatrixOf(const json& node) {
  if (node.contains("matrix")) return FromColumns(node["matrix"].get<std::array<float, 16>>().data());
  const auto move = NumbersOf<3>(node, "translation", {0, 0, 0}),
             scale = NumbersOf<3>(node, "scale", {1, 1, 1});
  const auto turn = NumbersOf<4>(node, "rotation", {0, 0, 0, 1});
  return Scaled(TurnOf(turn.data()), {scale[0], scale[1], scale[2]}, {move[0], move[1], move[2]});
}

std::vector<Vec3> Vectors(const std::vector<float>& numbers) {
  std::vector<Vec3> vectors(numbers.size() / 3);
  for (std::size_t i = 0; i < vectors.size(); ++i)
    vectors[i] = {numbers[3 * i], numbers[3 * i + 1], numbers[3 * i + 2]};
  return vectors;
}

struct SceneReader {
  const GltfFile& file;
  ImportModel& model;
  std::map<std::pair<std::int64_t, std::vector<float>>, std::vector<std::int32_t>> meshes =
      {};                      // read, by morph
  std::int32_t plain = kNone;  // what has no material

  std::int32_t SurfaceOf(const json& primitive) {
    if (primitive.contains("material")) {
      const auto material = primitive["material"].get<std::int64_t>();
      GltfItem(file, "materials", material);
      return static_cast<std::int32_t>(material);
    }
    if (plain == kNone) {
      plain = static_cast<std::int32_t>(model.surfaces.size());
      ImportSurface& surface = model.surfaces.emplace_back();
      surface.name = "plain";
      surface.base = {0.8f, 0.8f, 0.8f};
    }
    return plain;
  }

  // Lists of corners of triangles.
  static std::vector<std::uint32_t> Triangles(std::vector<std::uint32_t> corners, int mode) {
    if (mode == 4) {
      corners.resize(corners.size() - corners.size() % 3);
      return corners;
    }
    std::vector<std::uint32_t> triangles;
    for (std::size_t i = 2; i < corners.size(); ++i) {
      const bool odd = mode == 5 && i % 2 == 1;
      triangles.push_back(mode == 6 ? corners[0] : corners[i - 2 + (odd ? 1 : 0)]);
      triangles.push_back(odd ? corners[i - 2] : corners[i - 1]);
      triangles.push_back(corners[i]);
    }
    return triangles;
  }

  void ReadCorners(const GltfPrimitive& primitive, ImportMesh& mesh) {
    std::vector<std::uint32_t> corners = Corners(primitive);
    const bool isPlain = corners.empty() && !primitive.text.contains("indices");
    for (std::size_t i = 0; isPlain && i < mesh.positions.size(); ++i)
      corners.push_back(static_cast<std::uint32_t>(i));
    for (const std::uint32_t corner : corners)
      if (corner >= mesh.positions.size()) throw ImportError("a face has a corner that is not there");
    mesh.corners = Triangles(std::move(corners), primitive.unpacked ? 4 : primitive.text.value("mode", 4));
    mesh.faceSizes.assign(mesh.corners.size() / 3, 3);
  }

  void ReadUvs(const GltfPrimitive& primitive, ImportMesh& mesh) {
    constexpr int kMostSets = 8;
    for (int set = 0; set < kMostSets; ++set) {
      const std::string name = "TEXCOORD_" + std::to_string(set);
      const std::vector<float> numbers = Attribute(primitive, name.c_str(), 2);
      if (numbers.empty()) break;
      std::vector<Vec2>& uvs = mesh.uvs.emplace_back(mesh.positions.size());
      for (std::size_t i = 0; i < std::min(uvs.size(), numbers.size() / 2); ++i)
        uvs[i] = {numbers[2 * i], 1 - numbers[2 * i + 1]};
    }
  }

  void ReadMorph(const json& primitive, const std::vector<float>& weights, ImportMesh& mesh) {
    const json targets = primitive.value("targets", json::array());
    for (std::size_t t = 0; t < std::min(targets.size(), weights.size()); ++t) {
      if (weights[t] == 0) continue;
      const auto add = [&](const char* name, std::vector<Vec3>& values) {
        if (!targets[t].contains(name)) return;
        const std::vector<Vec3> moves = Vectors(GltfFloats(file, targets[t][name].get<std::int64_t>(), 3));
        for (std::size_t i = 0; i < std::min(moves.size(), values.size()); ++i)
          values[i] = values[i] + weights[t] * moves[i];
      };
      add("POSITION", mesh.positions);
      add("NORMAL", mesh.normals);
    }
  }

  void ReadColors(const GltfPrimitive& primitive, const std::string& label, ImportMesh& mesh) {
    const std::size_t components = ComponentsOf(primitive, "COLOR_0");
    if (components < 3) return;
    const std::vector<float> numbers = Attribute(primitive, "COLOR_0", components);
    std::vector<Vec3> colors;
    for (std::size_t i = 0; i + components <= numbers.size(); i += components)
      colors.push_back({numbers[i], numbers[i + 1], numbers[i + 2]});
    ApplyVertexColors(model, mesh, colors, true, label);
  }

  std::optional<ImportMesh> ReadPrimitive(const GltfPrimitive& primitive, const std::vector<float>& weights,
                                          const std::string& label) {
    const int mode = primitive.text.value("mode", 4);
    if (mode < 4 || mode > 6) {
      AddLoss(model, "points and lines of \"" + label + "\" are left out");
      return {};
    }
    ImportMesh mesh;
    mesh.positions = Vectors(Attribute(primitive, "POSITION", 3));
    mesh.normals = Vectors(Attribute(primitive, "NORMAL", 3));
    if (!mesh.normals.empty()) mesh.normals.resize(mesh.positions.size());
    ReadUvs(primitive, mesh);
    ReadMorph(primitive.text, weights, mesh);
    ReadCorners(primitive, mesh);
    if (mesh.faceSizes.empty()) return {};
    mesh.surface = SurfaceOf(primitive.text);
    return mesh;
  }

  // The parts of a mesh that a node places.
  std::vector<std::int32_t> MeshParts(const json& node) {
    const auto index = node.at("mesh").get<std::int64_t>();
    const json& mesh = GltfItem(file, "meshes", index);
    std::vector<float> weights = node.value("weights", mesh.value("weights", std::vector<float>()));
    const auto [found, isNew] = meshes.try_emplace({index, weights});
    if (!isNew) return found->second;
    const std::string label = mesh.value("name", "mesh" + std::to_string(index));
    for (const json& primitive : mesh.at("primitives")) {
      const GltfPrimitive opened = OpenPrimitive(file, primitive);
      std::optional<ImportMesh> part = ReadPrimitive(opened, weights, label);
      if (!part) continue;
      ReadColors(opened, label, *part);
      found->second.push_back(static_cast<std::int32_t>(model.meshes.size()));
      model.meshes.push_back(std::move(*part));
    }
    return found->second;
  }

  // A node of a skin: its place says nothing, those of its joints do.
  void PlaceSkin(const json& node, const std::vector<Mat4>& places) {
    const json& skin = GltfItem(file, "skins", node["skin"].get<std::int64_t>());
    const auto joints = skin.at("joints").get<std::vector<std::int64_t>>();
    std::vector<float> inverses;
    if (skin.contains("inverseBindMatrices"))
      inverses = GltfFloats(file, skin["inverseBindMatrices"].get<std::int64_t>(), 16);
    std::vector<Mat4> matrices(joints.size());
    for (std::size_t i = 0; i < joints.size(); ++i) {
      GltfItem(file, "nodes", joints[i]);
      const Mat4& place = places[static_cast<std::size_t>(joints[i]) + 1];
      matrices[i] = 16 * (i + 1) <= inverses.size() ? Multiply(place, FromColumns(&inverses[16 * i])) : place;
    }
    const json& mesh = GltfItem(file, "meshes", node.at("mesh").get<std::int64_t>());
    std::vector<float> weights = node.value("weights", mesh.value("weights", std::vector<float>()));
    for (const json& text : mesh.at("primitives")) {
      const GltfPrimitive primitive = OpenPrimitive(file, text);
      std::optional<ImportMesh> part = ReadPrimitive(primitive, weights, mesh.value("name", "mesh"));
      if (!part) continue;
      ApplySkin(*part, matrices, WeightsOf(primitive, part->positions.size()));
      ReadColors(primitive, mesh.value("name", "mesh"), *part);
      model.nodes[0].meshes.push_back(static_cast<std::int32_t>(model.meshes.size()));
      model.meshes.push_back(std::move(*part));
    }
  }

  SkinWeights WeightsOf(const GltfPrimitive& primitive, std::size_t count) {
    SkinWeights skin;
    skin.joints.resize(count);
    skin.weights.resize(count);
    const std::vector<float> joints = Attribute(primitive, "JOINTS_0", 4),
                             weights = Attribute(primitive, "WEIGHTS_0", 4);
    for (std::size_t i = 0; i < std::min({4 * count, joints.size(), weights.size()}); ++i) {
      skin.joints[i / 4][i % 4] = static_cast<std::int32_t>(std::clamp(joints[i], 0.0f, 65535.0f));
      skin.weights[i / 4][i % 4] = weights[i];
    }
    if (ComponentsOf(primitive, "JOINTS_1") > 0)
      AddLoss(model, "of more than four joints of a vertex the first four count");
    return skin;
  }

  // Copies of a node's mesh, each a node below it.
  void PlaceCopies(const json& instancing, std::size_t index) {
    const json& attributes = instancing.at("attributes");
    const auto read = [&](const char* name, std::size_t components) {
      return attributes.contains(name) ? GltfFloats(file, attributes[name].get<std::int64_t>(), components)
                                       : std::vector<float>();
    };
    const std::vector<Vec3> moves = Vectors(read("TRANSLATION", 3)), scales = Vectors(read("SCALE", 3));
    const std::vector<float> turns = read("ROTATION", 4);
    const std::size_t count = std::max({moves.size(), scales.size(), turns.size() / 4});
    const std::vector<std::int32_t> parts = std::exchange(model.nodes[index].meshes, {});
    for (std::size_t i = 0; i < count; ++i) {
      ImportNode copy;
      copy.name = model.nodes[index].name;
      copy.matrix = Scaled(4 * i + 3 < turns.size() ? TurnOf(&turns[4 * i]) : Mat4{},
                           i < scales.size() ? scales[i] : kWhite, i < moves.size() ? moves[i] : Vec3{});
      copy.meshes = parts;
      model.nodes[index].children.push_back(static_cast<std::int32_t>(model.nodes.size()));
      model.nodes.push_back(std::move(copy));
    }
  }

  // Nodes stand behind the root, which places those of the scene.
  void ReadNodes() {
    const json nodes = file.text.value("nodes", json::array());
    model.nodes.resize(nodes.size() + 1);
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      ImportNode& node = model.nodes[i + 1];
      node.name = nodes[i].value("name", "node" + std::to_string(i));
      node.matrix = MatrixOf(nodes[i]);
      for (const json& child : nodes[i].value("children", json::array())) {
        GltfItem(file, "nodes", child.get<std::int64_t>());
        node.children.push_back(child.get<std::int32_t>() + 1);
      }
    }
    std::vector<std::int32_t>& roots = model.nodes[0].children;
    if (const json scenes = file.text.value("scenes", json::array()); !scenes.empty()) {
      for (const json& root :
           GltfItem(file, "scenes", file.text.value("scene", 0)).value("nodes", json::array())) {
        GltfItem(file, "nodes", root.get<std::int64_t>());
        roots.push_back(root.get<std::int32_t>() + 1);
      }
      if (scenes.size() > 1) AddLoss(model, "of several scenes the one that the file shows first is read");
      return;
    }
    std::set<std::int32_t> children;
    for (const ImportNode& node : model.nodes) children.insert(node.children.begin(), node.children.end());
    for (std::size_t i = 1; i < model.nodes.size(); ++i)
      if (!children.contains(static_cast<std::int32_t>(i))) roots.push_back(static_cast<std::int32_t>(i));
  }

  void ReadCamera(const json& node, const Mat4& place) {
    const json& source = GltfItem(file, "cameras", node["camera"].get<std::int64_t>());
    ImportCamera camera;
    camera.name = node.value("name", source.value("name", "camera"));
    camera.position = TransformPoint(place, {});
    camera.forward = UnitVector(TransformDirection(place, {0, 0, -1}));
    camera.up = UnitVector(TransformDirection(place, {0, 1, 0}));
    if (source.value("type", "perspective") == "perspective") {
      const json& lens = source.at("perspective");
      camera.aspect = lens.value("aspectRatio", camera.aspect);
      camera.fieldOfView =
          2 * std::atan(camera.aspect * std::tan(lens.at("yfov").get<float>() / 2)) * 180 / kPi;
    } else {
      const json& lens = source.at("orthographic");
      const float width = lens.at("xmag").get<float>(), height = lens.at("ymag").get<float>();
      camera.aspect = height > 0 ? width / height : 1;
      camera.fieldOfView = 1;  // from afar
      camera.position = camera.position - camera.forward * (width / std::tan(camera.fieldOfView * kPi / 360));
      AddLoss(model,
              "the parallel projection of the camera \"" + camera.name + "\" is a narrow view from afar");
    }
    model.cameras.push_back(std::move(camera));
  }

  void ReadLight(const json& node, std::int64_t index, const Mat4& place) {
    const json& list = file.text.at("extensions").at("KHR_lights_punctual").at("lights");
    const json& source = list.at(static_cast<std::size_t>(index));
    ImportLight light;
    light.name = node.value("name", source.value("name", "light"));
    const std::string type = source.value("type", "point");
    light.kind = type == "directional" ? LightKind::kParallel
                 : type == "spot"      ? LightKind::kSpot
                                       : LightKind::kPoint;
    const auto color = NumbersOf<3>(source, "color", {1, 1, 1});
    light.color = Vec3{color[0], color[1], color[2]} * (source.value("intensity", 1.0f) / kPi);
    light.position = TransformPoint(place, {});
    light.direction = UnitVector(TransformDirection(place, {0, 0, -1}));
    const json spot = source.value("spot", json::object());
    light.inner = spot.value("innerConeAngle", 0.0f) * 180 / kPi;
    light.outer = spot.value("outerConeAngle", kPi / 4) * 180 / kPi;
    if (source.contains("range")) AddLoss(model, "lights reach beyond their range");
    model.lights.push_back(std::move(light));
  }

  void PlaceContents() {
    const json nodes = file.text.value("nodes", json::array());
    const std::vector<Mat4> places = NodePlaces(model);
    std::vector<bool> inScene(model.nodes.size());
    std::vector<std::int32_t> open = {0};
    while (!open.empty()) {
      const auto at = static_cast<std::size_t>(open.back());
      open.pop_back();
      inScene[at] = true;
      open.insert(open.end(), model.nodes[at].children.begin(), model.nodes[at].children.end());
    }
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (!inScene[i + 1]) continue;
      const json& node = nodes[i];
      const json extensions = node.value("extensions", json::object());
      if (node.contains("mesh") && node.contains("skin"))
        PlaceSkin(node, places);
      else if (node.contains("mesh"))
        model.nodes[i + 1].meshes = MeshParts(node);
      if (extensions.contains("EXT_mesh_gpu_instancing"))
        PlaceCopies(extensions["EXT_mesh_gpu_instancing"], i + 1);
      if (node.contains("camera")) ReadCamera(node, places[i + 1]);
      if (const json light = extensions.value("KHR_lights_punctual", json::object()); light.contains("light"))
        ReadLight(node, light["light"].get<std::int64_t>(), places[i + 1]);
    }
  }
};

}  // namespace

ImportModel ReadGltf(const std::string& path) {
  const GltfFile file = ReadGltfFile(path);
  RefuseUnknown(file.text);
  ImportModel model;
  model.toScene = kYToZ;
  ReadGltfMaterials(file, model);
  SceneReader reader{file, model};
  reader.ReadNodes();
  reader.PlaceContents();
  if (const std::size_t count = file.text.value("animations", json::array()).size(); count > 0)
    AddLoss(model, std::to_string(count) + (count == 1 ? " animation is" : " animations are") +
                       " left out: the model stands as its nodes are written");
  return model;
}

}  // namespace zp
