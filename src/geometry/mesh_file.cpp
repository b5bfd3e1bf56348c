#include "geometry/mesh_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>
#include <map>

#include "core/console.h"
#include "core/files.h"
#include "core/index.h"
#include "core/large_array.h"
#include "core/stop.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {
namespace {

static_assert(std::endian::native == std::endian::little);

struct MeshHeader {
  char signature[4] = {'Z', 'P', 'M', '1'};
  std::uint32_t vertices = 0, triangles = 0, tetragons = 0;
  std::uint32_t shaders = 0;    // names of them
  std::uint32_t nameBytes = 0;  // of all names, each with a zero behind it
  std::uint32_t arrays = 0;     // bits of MeshBit
  std::uint32_t unused = 0;
};
static_assert(sizeof(MeshHeader) == 32);

enum MeshBit : std::uint32_t { kUvs = 1, kNormals = 2 };

// What is left of a file's bytes.
struct MeshBytes {
  std::string_view rest;

  template <class T, class Allocator>
  void Take(std::vector<T, Allocator>& array, std::size_t count) {
    ReserveLarge(array, count);
    array.resize(count);
    if (count > 0) std::memcpy(array.data(), rest.data(), count * sizeof(T));
    rest.remove_prefix(count * sizeof(T));
  }
};

std::uint64_t PromisedBytes(const MeshHeader& header) {
  const std::uint64_t ofVertex = sizeof(Vec3) + ((header.arrays & kUvs) != 0 ? sizeof(Vec2) : 0) +
                                 ((header.arrays & kNormals) != 0 ? 3 : 0);
  return sizeof header + std::uint64_t{header.nameBytes} + header.vertices * ofVertex +
         header.triangles * std::uint64_t{sizeof(Triangle)} +
         header.tetragons * std::uint64_t{sizeof(Tetragon)};
}

bool Fail(std::string_view message, const std::string& name) {
  ++missingFiles;
  PrintBareError(std::string(message) + name, {"mesh-unread", name});
  return false;
}

// Shaders by their numbers in the file, from 1.
std::vector<std::int32_t> ReadNames(std::string_view names, std::size_t count) {
  std::vector<std::int32_t> shadersOf = {0};
  while (!names.empty() && shadersOf.size() <= count) {
    const std::size_t end = std::min(names.find('\0'), names.size());
    shadersOf.push_back(FindOrCreateShader(names.substr(0, end)));
    names.remove_prefix(std::min(end + 1, names.size()));
  }
  return shadersOf;
}

// Shaders of the table in place of the file's; how many faces have vertices that are not there, which go.
template <class Faces>
std::size_t Settle(Faces& faces, const std::vector<std::int32_t>& shadersOf, std::size_t vertices) {
  const auto isLost = [&](const auto& face) {
    return std::any_of(std::begin(face.vertex), std::end(face.vertex),
                       [&](std::uint32_t vertex) { return vertex >= vertices; });
  };
  bool anyLost = false;
  for (auto& face : faces) {
    face.shader = IsIndex(shadersOf, face.shader) ? At(shadersOf, face.shader) : 0;
    anyLost |= isLost(face);
  }
  return anyLost ? std::erase_if(faces, isLost) : 0;
}

}  // namespace

bool ReadMesh(std::string_view bytes, const std::string& name, Part& part) {
  MeshHeader header;
  if (bytes.size() < sizeof header) return Fail("cannot read mesh file header ", name);
  std::memcpy(&header, bytes.data(), sizeof header);
  if (!bytes.starts_with(std::string_view(MeshHeader().signature, 4)))
    return Fail("mesh file has wrong signature ", name);
  if (PromisedBytes(header) > bytes.size()) return Fail("mesh file is cut off ", name);
  const std::vector<std::int32_t> shadersOf =
      ReadNames(bytes.substr(sizeof header, header.nameBytes), header.shaders);
  MeshBytes arrays{bytes.substr(sizeof header + header.nameBytes)};
  arrays.Take(part.positions, header.vertices);
  if (part.uvSets.empty()) part.uvSets.push_back({"uv", {}});
  const std::size_t count = header.vertices;
  arrays.Take(part.uvSets[0].values, (header.arrays & kUvs) != 0 ? count : 0);
  arrays.Take(part.triangles, header.triangles);
  arrays.Take(part.tetragons, header.tetragons);
  arrays.Take(part.normals, (header.arrays & kNormals) != 0 ? count : 0);
  part.uvSets[0].values.resize(count);
  part.normals.resize(count);
  part.tangents.resize(count);
  const std::size_t lost =
      Settle(part.triangles, shadersOf, count) + Settle(part.tetragons, shadersOf, count);
  if (lost > 0)
    PrintWarning(
        "mesh file - " + name + '\t' + std::to_string(lost) + " faces with vertices that are not there",
        {"mesh-faces", name});
  return true;
}

bool ReadMeshFile(const std::string& path, Part& part) {
  if (!HoldsBytes(path)) return Fail("cannot open mesh file ", path);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return Fail("cannot open mesh file ", path);
  RawVector<char> bytes;
  struct stat facts = {};
  const std::size_t promised =
      fstat(file, &facts) == 0 && facts.st_size > 0 ? static_cast<std::size_t>(facts.st_size) : 0;
  bytes.resize(promised);
  std::size_t done = 0;
  while (done < promised && !Stopping()) {
    constexpr std::size_t kBlock = std::size_t{64} << 20U;
    const ssize_t got = read(file, bytes.data() + done, std::min(promised - done, kBlock));
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  close(file);
  return !Stopping() && ReadMesh({bytes.data(), done}, path, part);
}

bool WriteMeshFile(const std::string& path, const Part& part) {
  MeshHeader header;
  header.vertices = static_cast<std::uint32_t>(part.positions.size());
  header.triangles = static_cast<std::uint32_t>(part.triangles.size());
  header.tetragons = static_cast<std::uint32_t>(part.tetragons.size());
  std::map<std::int32_t, std::int32_t> numbers = {{0, 0}};
  std::string names;
  const auto number = [&](auto faces) {
    for (auto& face : faces) {
      const auto [found, isNew] = numbers.try_emplace(face.shader, static_cast<std::int32_t>(numbers.size()));
      if (isNew) names += ShaderAt(face.shader).name + '\0';
      face.shader = found->second;
    }
    return faces;
  };
  const auto triangles = number(part.triangles);
  const auto tetragons = number(part.tetragons);
  header.shaders = static_cast<std::uint32_t>(numbers.size() - 1);
  header.nameBytes = static_cast<std::uint32_t>(names.size());
  static const std::vector<Vec2> noUvs;
  const std::vector<Vec2>& uvs = part.uvSets.empty() ? noUvs : part.uvSets[0].values;
  const bool hasUvs = uvs.size() == part.positions.size() &&
                      std::any_of(uvs.begin(), uvs.end(), [](Vec2 uv) { return !(uv == Vec2{}); });
  const bool hasNormals =
      part.normals.size() == part.positions.size() &&
      std::any_of(part.normals.begin(), part.normals.end(), [](PackedVector n) { return !IsZero(n); });
  header.arrays = (hasUvs ? kUvs : 0U) | (hasNormals ? kNormals : 0U);
  std::ofstream stream(path, std::ios::binary);
  const auto write = [&stream](const auto* elements, std::size_t count) {
    stream.write(reinterpret_cast<const char*>(elements),
                 static_cast<std::streamsize>(count * sizeof *elements));
  };
  write(&header, 1);
  write(names.data(), names.size());
  write(part.positions.data(), part.positions.size());
  if (hasUvs) write(uvs.data(), uvs.size());
  write(triangles.data(), triangles.size());
  write(tetragons.data(), tetragons.size());
  if (hasNormals) write(part.normals.data(), part.normals.size());
  stream.close();
  return stream.good();
}

}  // namespace zp
