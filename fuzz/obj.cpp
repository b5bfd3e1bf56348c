// Any bytes as a Wavefront OBJ file, twice into one Part: the second load merges with the first.

#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zp::ClearTables();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  zp::Part part;
  zp::ReadObj(text, part);
  const std::size_t vertices = part.positions.size();
  zp::ReadObj(text, part);
  zp::Require(part.positions.size() == vertices, __LINE__);
  zp::RequirePrepared(part);
  return 0;
}
