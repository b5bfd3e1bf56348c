// bench/meshes.h: what is measured: meshes as one Part, made ready for rays, and what they take in memory.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "geometry/object.h"

namespace zp {

enum class Shape : std::uint8_t { kTerrain, kHair, kParticles };

// A mesh by name: a file, or a shape that is generated.
struct MeshSource {
  std::string name;
  std::string file;  // OBJ, or empty
  Shape shape = Shape::kTerrain;
  std::int64_t amount = 0;  // wanted triangles, strands or particles
  bool roofed = false;      // with leaves above the terrain and a roof above those
};

// Bytes of the process and of its containers around one initialisation; 0 where the system does not tell.
struct MemoryUse {
  std::size_t peak = 0;        // highest resident growth, from before the Part existed
  std::size_t resident = 0;    // resident growth once it is done
  std::size_t containers = 0;  // capacities of the Object's arrays, without its packed tree
  std::size_t primitives = 0;
};

// Value-noise hills over a rectangle of 2 x 1, y upwards, in 4 n^2 triangles: as many as fit into
// `triangles`. The same vertices on every run.
void FillTerrain(Part& part, std::int64_t triangles);
// A head of curly strands of fifteen segments, each about a unit long.
void FillHair(Part& part, std::int64_t strands);
// A cloud of particles that is denser towards its middle.
void FillParticles(Part& part, std::int64_t particles);
// Positions and triangles as OBJ text. False if the file could not be written whole.
bool WriteObjFile(const std::string& path, const Part& part);
std::size_t PrimitiveCount(const Part& part);

// Makes the mesh the one Object of the scene, initialised; nothing happens if it is that already.
// False, with a line on the error stream, if its file cannot be read or holds no faces.
bool EnterMesh(const MeshSource& source);
void LeaveMesh();
// Of the mesh that was entered last.
const Part& EnteredPart();
const MemoryUse& EnteredMemory();

}  // namespace zp
