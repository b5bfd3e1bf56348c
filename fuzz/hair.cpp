// Any bytes as a binary hair file.

#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zp::ClearTables();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  zp::Part part;
  if (zp::ReadHair(bytes, "", part))
    zp::RequireSound(zp::ValidateStrands(part));
  else
    zp::Require(part.positions.empty() && part.strandLengths.empty(), __LINE__);
  zp::RequirePrepared(part);
  return 0;
}
