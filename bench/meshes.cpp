#include "meshes.h"

#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "accel/accel.h"
#include "core/random.h"
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

// The peak starts again at what is resident now. Where that is refused, the
// peak of the whole run so far stands, which is why the mesh whose memory
// counts is entered first.
void RestartPeak() {
  if (std::FILE* file = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", file);
    std::fclose(file);
  }
}

template <class List>
std::size_t Bytes(const List& list) {
  return list.capacity() * sizeof(typename List::value_type);
}

std::size_t ContainerBytes(const Object& object) {
  std::size_t sum = Bytes(object.references) + Bytes(object.nodes) +
                    object.wideNodes.size() * sizeof(WideNode) +  // what they have no use for has no memory
                    Bytes(object.compactReferences);
  for (const Part& part : object.parts) {
    sum += Bytes(part.positions) + Bytes(part.normals) + Bytes(part.tangents) +
           Bytes(part.cornerNormals.values) + Bytes(part.cornerTangents.values) + Bytes(part.triangles) +
           Bytes(part.tetragons) + Bytes(part.particles) + Bytes(part.cylinders) +
           Bytes(part.primitiveShaders);
    for (const auto& set : part.uvSets) sum += Bytes(set.values);
    for (const auto& set : part.vectorSets) sum += Bytes(set.values);
    for (const auto& set : part.scalarSets) sum += Bytes(set.values);
  }
  return sum;
}

// Leaves in the air above the terrain, and a roof over them, below the light of
// the shadow rays.
void AddRoof(Part& part) {
  constexpr int kLeaves = 200'000;
  constexpr float kLow = 0.2f, kHigh = 0.5f,
                  kSize = 0.002f;  // the hills stay below, the roof is above
  const auto first = static_cast<std::uint32_t>(part.positions.size());
  for (const Vec3 p : {Vec3{0, 0.6f, 0}, Vec3{2, 0.6f, 0}, Vec3{2, 0.6f, 1}, Vec3{0, 0.6f, 1}})
    part.positions.push_back(p);
  part.triangles.push_back({{first, first + 1, first + 2}, 0});
  part.triangles.push_back({{first, first + 2, first + 3}, 0});
  RekeyRandom(0, 2);  // the same leaves on every run
  for (int i = 0; i < kLeaves; ++i) {
    const float x = 2 * RandomFloat(), z = RandomFloat(), y = kLow + (kHigh - kLow) * RandomFloat();
    const auto corner = static_cast<std::uint32_t>(part.positions.size());
    for (int k = 0; k < 3; ++k) {
      const float dx = RandomFloat(), dy = RandomFloat(), dz = RandomFloat();
      part.positions.push_back(Vec3{x, y, z} + kSize * Vec3{dx, dy, dz});
    }
    part.triangles.push_back({{corner, corner + 1, corner + 2}, 0});
  }
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

void FillHair(Part& part, std::int64_t strands) {
  constexpr std::uint32_t kSegments = 15;
  constexpr float kHead = 9, kRadius = 0.01f, kGolden = 2.39996323f;
  for (std::int64_t strand = 0; strand < strands; ++strand) {
    const auto number = static_cast<float>(strand);
    const auto lattice = [&](std::int32_t k) { return LatticeValue(static_cast<std::int32_t>(strand), k); };
    const float height = 1 - 1.5f * (number + 0.5f) / static_cast<float>(strands);
    const float ring = std::sqrt(1 - height * height), angle = std::fmod(number * kGolden, 2 * kPi);
    Vec3 way = {ring * std::cos(angle), height, ring * std::sin(angle)};
    Vec3 p = kHead * way;
    const float curl = 0.6f + 0.6f * lattice(1), turn = 2 * kPi * lattice(2);
    const auto first = static_cast<std::uint32_t>(part.positions.size());
    for (std::uint32_t k = 0; k <= kSegments; ++k) {
      part.positions.push_back(p);
      part.scalarSets[0].values.push_back(kRadius);
      if (k < kSegments) part.cylinders.push_back(first + k);
      const float phase = turn + curl * static_cast<float>(k);
      way = SafeNormalize(way + Vec3{0.4f * std::cos(phase), -0.25f, 0.4f * std::sin(phase)});
      p += way;
    }
    part.strandLengths.push_back(kSegments);
    for (std::uint32_t k = 0; k <= kSegments; ++k) {
      const Vec3 before = part.positions[first + (k == 0 ? 0 : k - 1)];
      const Vec3 behind = part.positions[first + (k == kSegments ? k : k + 1)];
      part.tangents.push_back(Pack(behind - before));
    }
  }
}

void FillParticles(Part& part, std::int64_t particles) {
  for (std::int64_t i = 0; i < particles; ++i) {
    const auto lattice = [&](std::int32_t k) { return LatticeValue(static_cast<std::int32_t>(i), k); };
    const float z = 2 * lattice(1) - 1, ring = std::sqrt(1 - z * z), angle = 2 * kPi * lattice(2);
    const float reach = lattice(3) * lattice(3) + 0.2f * lattice(4);
    part.particles.push_back(static_cast<std::uint32_t>(part.positions.size()));
    part.positions.push_back(reach * Vec3{ring * std::cos(angle), z, ring * std::sin(angle)});
    part.scalarSets[0].values.push_back(0.002f + 0.002f * lattice(5));
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

std::size_t PrimitiveCount(const Part& part) {
  return part.triangles.size() + part.tetragons.size() + part.cylinders.size() + part.particles.size();
}

bool EnterMesh(const MeshSource& source) {
  if (!enteredName.empty() && enteredName == source.name) return true;
  LeaveMesh();
  malloc_trim(0);  // pages that earlier work gave back would hide what this mesh takes
  const std::size_t before = StatusBytes("VmRSS:");
  RestartPeak();
  objectTable.resize(1);
  objectTable[0].name = source.name;
  Part& part = objectTable[0].parts.emplace_back();
  if (source.file.empty() && source.shape == Shape::kHair) {
    FillHair(part, source.amount);
  } else if (source.file.empty() && source.shape == Shape::kParticles) {
    FillParticles(part, source.amount);
  } else if (source.file.empty()) {
    FillTerrain(part, source.amount);
    if (source.roofed) AddRoof(part);
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
