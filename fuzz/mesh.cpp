// Any bytes as a mesh file.

#include "fuzz.h"
#include "geometry/mesh_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zp::ClearTables();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  zp::Part part;
  if (!zp::ReadMesh(bytes, "", part)) zp::Require(part.positions.empty() && part.triangles.empty(), __LINE__);
  zp::RequirePrepared(part);
  return 0;
}
