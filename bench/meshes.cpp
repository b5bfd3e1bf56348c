#include "meshes.h"

#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "accel/accel.h"
#include "geometry/geometry.h"

namespace zp {
namespace {

std::string enteredName;
MemoryUse enteredMemory;

// A number in 0..1 for each lattice point.
float LatticeValue(std::int32_t x, std::int32_t z) {
  std::uint32_t h = static_cast<std::uint32_t>(x) * 0x8da6b343U ^ static_cast<std::uint32_t>(z) * 0xd8163841U;
  h = (h ^ (h >> 16U)) * 0x7feb352dU;
  h = (h ^ (h >> 15U)) * 0x846ca68bU;
  return static_cast<float>((h ^ (h >> 16U)) >> 8U) * 0x1p-24f;
}

float ValueNoise(float x, float z) {
  const float cellX = std::floor(x), cellZ = std::floor(z);
  const auto i = static_cast<std::int32_t>(cellX), k = static_cast<std::int32_t>(cellZ);
  const auto ease = [](float u) { return u * u * (3 - 2 * u); };
  const float u = ease(x - cellX), v = ease(z - cellZ);
  const float low = std::lerp(LatticeValue(i, k), LatticeValue(i + 1, k), u);
  const float high = std::lerp(LatticeValue(i, k + 1), LatticeValue(i + 1, k + 1), u);
  return std::lerp(low, high, v);
}

float TerrainHeight(float x, float z) {
  float height = 0, amplitude = 0.2f, frequency = 4;
  for (int octave = 0; octave < 8; ++octave, amplitude *= 0.48f, frequency *= 2.03f)
    height += amplitude * ValueNoise(x * frequency, z * frequency);
  return height;
}

// A field of /proc/self/status in bytes; 0 if there is none.
std::size_t StatusBytes(const char* field) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/status", "r"),
                                                             std::fclose);
  if (!file) return 0;
  char line[256];
  while (std::fgets(line, sizeof line, file.get()) != nullptr)
    if (std::strncmp(line, field, std::strlen(field)) == 0)
      return static_cast<std::size_t>(std::strtoull(line + std::strlen(field), nullptr, 10)) * 1024;
  return 0;
}

// The peak starts again at what is resident now. Where that is refused, the peak of the whole run so far
// stands, which is why the mesh whose memory counts is entered first.
void RestartPeak() {
  if (std::FILE* file = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", file);
    std::fclose(file);
  }
}

template <class T>
std::size_t Bytes(const std::vector<T>& list) {
  return list.capacity() * sizeof(T);
}

std::size_t ContainerBytes(const Object& object) {
  std::size_t sum = Bytes(object.references) + Bytes(object.nodes) + Bytes(object.wideNodes) +
                    Bytes(object.compactReferences);
  for (const Part& part : object.parts) {
    sum += Bytes(part.positions) + Bytes(part.normals) + Bytes(part.tangents) + Bytes(part.triangles) +
           Bytes(part.tetragons) + Bytes(part.primitiveShaders) + Bytes(part.vertexHash);
    for (const auto& set : part.uvSets) sum += Bytes(set.values);
    for (const auto& set : part.vectorSets) sum += Bytes(set.values);
    for (const auto& set : part.scalarSets) sum += Bytes(set.values);
  }
  return sum;
}

}  // namespace

void FillTerrain(Part& part, std::int64_t triangles) {
  const auto rows =
      static_cast<std::uint32_t>(std::clamp(std::sqrt(static_cast<double>(triangles) / 4), 1.0, 16384.0));
  const std::uint32_t columns = 2 * rows;
  const float step = 1 / static_cast<float>(rows);
  part.positions.clear();
  part.triangles.clear();
  part.positions.reserve(std::size_t{rows + 1} * (columns + 1));
  part.triangles.reserve(std::size_t{2} * rows * columns);
  for (std::uint32_t row = 0; row <= rows; ++row)
    for (std::uint32_t column = 0; column <= columns; ++column) {
      const float x = static_cast<float>(column) * step, z = static_cast<float>(row) * step;
      part.positions.push_back({x, TerrainHeight(x, z), z});
    }
  for (std::uint32_t row = 0; row < rows; ++row)
    for (std::uint32_t column = 0; column < columns; ++column) {
      const std::uint32_t a = row * (columns + 1) + column, b = a + 1, c = a + columns + 1, d = c + 1;
      part.triangles.push_back({{a, c, d}, 0});
      part.triangles.push_back({{a, d, b}, 0});
    }
}

bool WriteObjFile(const std::string& path, const Part& part) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  bool good = true;
  for (const Vec3 p : part.positions)
    good = good && std::fprintf(file, "v %.6f %.6f %.6f\n", static_cast<double>(p.x),
                                static_cast<double>(p.y), static_cast<double>(p.z)) > 0;
  for (const Triangle& t : part.triangles)
    good = good && std::fprintf(file, "f %u %u %u\n", t.vertex[0] + 1, t.vertex[1] + 1, t.vertex[2] + 1) > 0;
  return (std::fclose(file) == 0) && good;
}

std::size_t PrimitiveCount(const Part& part) { return part.triangles.size() + part.tetragons.size(); }

bool EnterMesh(const MeshSource& source) {
  if (!enteredName.empty() && enteredName == source.name) return true;
  LeaveMesh();
  malloc_trim(0);  // pages that earlier work gave back would hide what this mesh takes
  const std::size_t before = StatusBytes("VmRSS:");
  RestartPeak();
  objectTable.resize(1);
  objectTable[0].name = source.name;
  Part& part = objectTable[0].parts.emplace_back();
  if (source.file.empty()) {
    FillTerrain(part, source.triangles);
  } else if (!ReadObjFile(source.file, part)) {
    std::fprintf(stderr, "zp_bench: cannot read %s\n", source.file.c_str());
    LeaveMesh();
    return false;
  }
  InitializeAccelerator();
  const auto growth = [&](std::size_t now) { return now > before ? now - before : 0; };
  enteredMemory = {growth(StatusBytes("VmHWM:")), growth(StatusBytes("VmRSS:")),
                   ContainerBytes(objectTable[0]), PrimitiveCount(EnteredPart())};
  if (enteredMemory.primitives == 0) {
    std::fprintf(stderr, "zp_bench: no faces in %s\n", source.file.c_str());
    LeaveMesh();
    return false;
  }
  enteredName = source.name;
  return true;
}

void LeaveMesh() {
  if (!objectTable.empty()) FinalizeAccelerator();
  objectTable.clear();
  objectTable.shrink_to_fit();
  rootObject = kNone;
  enteredName.clear();
}

const Part& EnteredPart() { return objectTable[0].parts[0]; }
const MemoryUse& EnteredMemory() { return enteredMemory; }

}  // namespace zp
