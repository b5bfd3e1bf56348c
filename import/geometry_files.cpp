#include "geometry_files.h"

#include <cmath>
#include <filesystem>
#include <fstream>

#include "geometry/geometry.h"
#include "geometry/mesh_file.h"
#include "scene/scene_writer.h"

namespace zp {
namespace {

// Text that goes to a file bit by bit.
struct TextFile {
  std::ofstream stream;
  std::string text = {};

  void Flush(std::size_t least) {
    if (text.size() < least) return;
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    text.clear();
  }
  void Line(const char* keyword, std::initializer_list<float> numbers) {
    text += keyword;
    for (const float number : numbers) {
      text += ' ';
      AppendNumber(text, number);
    }
    text += '\n';
    Flush(std::size_t{1} << 20U);
  }
};

// Numbers of the first element of each array, of the part at hand.
struct ObjBase {
  std::uint64_t position = 1, uv = 1, normal = 1;
};

void WriteFaces(TextFile& file, const ImportMesh& mesh, const ObjBase& base, bool hasUvs) {
  std::size_t at = 0;
  const bool hasNormals = !mesh.normals.empty();
  for (const std::uint32_t size : mesh.faceSizes) {
    file.text += 'f';
    for (std::uint32_t k = 0; k < size; ++k) {
      const std::uint64_t corner = mesh.corners[at + k];
      file.text += ' ' + std::to_string(base.position + corner);
      if (hasUvs || hasNormals) file.text += '/';
      if (hasUvs) file.text += std::to_string(base.uv + corner);
      if (hasNormals) file.text += '/' + std::to_string(base.normal + corner);
    }
    file.text += '\n';
    file.Flush(std::size_t{1} << 20U);
    at += size;
  }
}

void WriteMesh(TextFile& file, const ImportMesh& mesh, std::size_t uvSet, const std::string& shader,
               ObjBase& base) {
  for (const Vec3 p : mesh.positions) file.Line("v", {p.x, p.y, p.z});
  for (const Vec3 n : mesh.normals) file.Line("vn", {n.x, n.y, n.z});
  const bool hasUvs = !mesh.uvs.empty();
  const std::vector<Vec2>& uvs = hasUvs ? mesh.uvs[uvSet < mesh.uvs.size() ? uvSet : 0] : std::vector<Vec2>();
  for (const Vec2 uv : uvs) file.Line("vt", {uv.x, uv.y});
  if (!shader.empty()) file.text += "usemtl " + shader + '\n';
  WriteFaces(file, mesh, base, hasUvs);
  base.position += mesh.positions.size();
  base.normal += mesh.normals.size();
  base.uv += uvs.size();
}

}  // namespace

void WriteGeometry(const ImportModel& model, const std::vector<std::int32_t>& parts,
                   const std::vector<std::string>& names, const std::vector<std::int32_t>& uvSets,
                   const std::string& path, bool binary) {
  const std::string objPath = binary ? path + ".obj" : path;
  TextFile file{std::ofstream(objPath, std::ios::binary)};
  ObjBase base;
  for (const std::int32_t part : parts) {
    const ImportMesh& mesh = model.meshes[static_cast<std::size_t>(part)];
    const auto surface = static_cast<std::size_t>(mesh.surface);
    WriteMesh(file, mesh, static_cast<std::size_t>(uvSets[surface]), names[surface], base);
  }
  file.Flush(0);
  file.stream.close();
  if (!file.stream) FailWrite(std::filesystem::path(path).filename().string());
  if (!binary) return;
  // By way of the reader of OBJ files, so that both kinds of file give the same model.
  Part packed;
  const bool read = ReadObjFile(objPath, packed);
  std::filesystem::remove(objPath);
  if (!read || !WriteMeshFile(path, packed)) FailWrite(std::filesystem::path(path).filename().string());
}

}  // namespace zp
