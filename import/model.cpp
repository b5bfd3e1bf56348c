#include "model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "imaging/imaging.h"
#include "scene/scene_writer.h"

namespace zp {

void AddLoss(ImportModel& model, const std::string& sentence) {
  if (std::find(model.losses.begin(), model.losses.end(), sentence) == model.losses.end())
    model.losses.push_back(sentence);
}

Mat4 Multiply(const Mat4& a, const Mat4& b) {
  Mat4 product = {};
  for (int row = 0; row < 4; ++row)
    for (int column = 0; column < 4; ++column) {
      double sum = 0;
      for (int k = 0; k < 4; ++k) sum += static_cast<double>(a.m[row][k]) * b.m[k][column];
      product.m[row][column] = static_cast<float>(sum);
    }
  return product;
}

Vec3 LinearColor(Vec3 screen) {
  return {DecodeSrgb(std::clamp(screen.x, 0.0f, 1.0f)), DecodeSrgb(std::clamp(screen.y, 0.0f, 1.0f)),
          DecodeSrgb(std::clamp(screen.z, 0.0f, 1.0f))};
}

std::vector<Mat4> NodePlaces(const ImportModel& model) {
  std::vector<Mat4> places(model.nodes.size());
  std::vector<bool> met(model.nodes.size());
  std::vector<std::int32_t> open = {0};
  if (model.nodes.empty()) return places;
  places[0] = model.nodes[0].matrix;
  met[0] = true;
  while (!open.empty()) {
    const auto at = static_cast<std::size_t>(open.back());
    open.pop_back();
    for (const std::int32_t child : model.nodes[at].children) {
      const auto index = static_cast<std::size_t>(child);
      if (index >= model.nodes.size()) throw ImportError("a node has a child that is not there");
      if (met[index]) throw ImportError("a node stands in two places, or in itself");
      met[index] = true;
      places[index] = Multiply(places[at], model.nodes[index].matrix);
      open.push_back(child);
    }
  }
  return places;
}

void ApplySkin(ImportMesh& mesh, const std::vector<Mat4>& joints, const SkinWeights& skin) {
  for (std::size_t v = 0; v < mesh.positions.size(); ++v) {
    Vec3 position = {}, normal = {};
    float total = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      const auto joint = static_cast<std::size_t>(skin.joints[v][k]);
      const float weight = skin.weights[v][k];
      if (!(weight > 0) || joint >= joints.size()) continue;
      total += weight;
      position = position + weight * TransformPoint(joints[joint], mesh.positions[v]);
      if (v < mesh.normals.size())
        normal = normal + weight * TransformDirection(joints[joint], mesh.normals[v]);
    }
    if (!(total > 0)) continue;
    mesh.positions[v] = position * (1 / total);
    if (v < mesh.normals.size()) mesh.normals[v] = UnitVector(normal);
  }
}

void FailWrite(const std::string& name) {
  const int reason = errno;
  throw ImportError("'" + name + "' cannot be written" +
                    (reason == 0 ? "" : ": " + std::error_code(reason, std::generic_category()).message()));
}

std::vector<std::uint8_t> ReadBytes(const std::string& path) {
  std::error_code error;
  const std::string name = std::filesystem::path(path).filename().string();
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  if (error) throw ImportError("'" + name + "' cannot be read: " + error.message());
  std::ifstream stream(path, std::ios::binary);
  std::vector<std::uint8_t> bytes(size);
  if (!stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size)))
    throw ImportError("'" + name + "' cannot be read");
  return bytes;
}

ImportModel ReadModel(const std::string& path, const ReadSettings& settings) {
  const std::filesystem::path file(path);
  std::string end = file.extension().string();
  std::transform(end.begin(), end.end(), end.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  ImportModel model = end == ".glb" || end == ".gltf" ? ReadGltf(path) : ReadByAssimp(path, settings);
  model.name = TokenOf(file.stem().string());
  return model;
}

}  // namespace zp
